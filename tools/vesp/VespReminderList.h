// The to-dos `vesp reminders` lists. They are read through the store's predicates: open-ended ones
// when no period is given, and the store's own for cancelled to-dos, which are neither open nor
// completed. The manager's reminder query needs a period and returns records alone, so the program
// fetches from its platform (as the manager does) and keeps what its views sort and mark by.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Vesp/VespReminder.h"
#include "platforms/vdir/VdirPlatform.h"

namespace vesp::tool {

struct ListedReminder {
  VespReminder record;
  std::int64_t priority = 0;          // as the file says: 0 none, 1 highest to 9 lowest
  std::optional<platform::Date> due, start;  // a day's from its local midnight
  bool cancelled = false;
};

struct ReminderSelection {
  bool open = true, completed = false, cancelled = false;
  // Open and cancelled to-dos by due date, completed ones by completion date; absent bounds are
  // open, and with both absent, to-dos without such a date are included.
  std::optional<platform::Date> start, end;
  std::set<std::string> lists;  // calendar identifiers; empty: every list
  // Only those at least this pressing: a priority from 1 (highest) to this; none is the least.
  std::optional<std::int64_t> atLeastPriority;
  std::optional<platform::Date> dueBefore;  // only those due before it (none undated)
};

// Fetches the selected reminders, in no particular order.
std::vector<ListedReminder> listReminders(vdir::VdirPlatform& platform, const ReminderSelection& selection);
// `record` with what the store says of its to-do (nothing when the store no longer holds it).
ListedReminder describedReminder(vdir::VdirPlatform& platform, VespReminder record);

// todoman's order: completed ones first, latest completion first; then no priority before low,
// medium and high (9 down to 1); within a priority, no due date first, then latest due first;
// then earliest created first (none before any). The most pressing to-do is the last line, next to
// the prompt. Ties keep title, then identifier, order.
void sortAsTodoman(std::vector<ListedReminder>& reminders);

// The record's JSON, with "isCancelled".

}  // namespace vesp::tool
