#include "tools/vesp/VespReminderList.h"

#include <algorithm>
#include <future>
#include <tuple>

#include "platforms/vdir/VdirEventStore.h"
#include "platforms/vdir/VdirObjects.h"
#include "tools/vesp/VespOutput.h"

namespace vesp::tool {
namespace {

using CalendarList = std::optional<std::vector<std::shared_ptr<platform::EKCalendar>>>;

CalendarList calendarsOf(vdir::VdirEventStore& store, const std::set<std::string>& lists) {
  if (lists.empty()) return std::nullopt;
  std::vector<std::shared_ptr<platform::EKCalendar>> chosen;
  for (auto& calendar : store.calendarsForEntityType(platform::EKEntityTypeReminder))
    if (lists.count(calendar->calendarIdentifier())) chosen.push_back(std::move(calendar));
  return chosen;
}

ListedReminder listed(const platform::EKReminder& reminder, VespReminder record) {
  const auto* stored = dynamic_cast<const vdir::VdirReminder*>(&reminder);
  return {std::move(record), reminder.priority(), stored ? stored->dueInstant() : std::nullopt,
          stored ? stored->startInstant() : std::nullopt, stored && stored->isCancelled()};
}

// Fetches what `predicate` selects and waits for the store's answer.
void fetchInto(vdir::VdirEventStore& store, const std::shared_ptr<platform::EKPredicate>& predicate,
               std::vector<ListedReminder>& into) {
  std::promise<std::optional<std::vector<std::shared_ptr<platform::EKReminder>>>> fetched;
  auto answer = fetched.get_future();
  store.fetchRemindersMatchingPredicate(predicate, [&fetched](auto reminders) { fetched.set_value(reminders); });
  const auto reminders = answer.get();
  if (!reminders) return;
  for (const auto& reminder : *reminders) into.push_back(listed(*reminder, VespReminder(*reminder)));
}

}  // namespace

std::vector<ListedReminder> listReminders(vdir::VdirPlatform& platform, const ReminderSelection& selection) {
  auto connection = std::dynamic_pointer_cast<vdir::VdirEventStore>(platform.makeEventStore());
  if (!connection) return {};
  auto& store = *connection;
  const CalendarList calendars = calendarsOf(store, selection.lists);
  std::vector<ListedReminder> found;
  const auto& [start, end] = std::tie(selection.start, selection.end);
  if (selection.open)
    fetchInto(store, store.predicateForIncompleteRemindersWithDueDateStarting(start, end, calendars), found);
  if (selection.completed)
    fetchInto(store, store.predicateForCompletedRemindersWithCompletionDateStarting(start, end, calendars), found);
  if (selection.cancelled)
    fetchInto(store, store.predicateForCancelledRemindersWithDueDateStarting(start, end, calendars), found);
  std::erase_if(found, [&](const ListedReminder& reminder) {
    const auto& [priority, due] = std::tie(reminder.priority, reminder.due);
    return (selection.atLeastPriority && (priority == 0 || priority > *selection.atLeastPriority)) ||
           (selection.dueBefore && (!due || !(*due < *selection.dueBefore)));
  });
  return found;
}

ListedReminder describedReminder(vdir::VdirPlatform& platform, VespReminder record) {
  auto stored = std::dynamic_pointer_cast<platform::EKReminder>(
      platform.makeEventStore()->calendarItemWithIdentifier(record.calendarItemIdentifier()));
  if (!stored) return {std::move(record), 0, std::nullopt, std::nullopt, false};
  return listed(*stored, std::move(record));
}

void sortAsTodoman(std::vector<ListedReminder>& reminders) {
  // Ascending keys; each negated field sorts latest (or lowest priority) first.
  auto key = [](const ListedReminder& listed) {
    const VespReminder& record = listed.record;
    const auto& completed = record.completionDate();
    const auto& created = record.creationDate();
    return std::make_tuple(!completed, completed ? -completed->timeIntervalSinceReferenceDate() : 0.0,
                           listed.priority != 0, -listed.priority, listed.due.has_value(),
                           listed.due ? -listed.due->timeIntervalSinceReferenceDate() : 0.0, created.has_value(),
                           created ? created->timeIntervalSinceReferenceDate() : 0.0);
  };
  auto names = [](const ListedReminder& listed) {
    return std::tie(listed.record.title(), listed.record.calendarItemIdentifier());
  };
  std::sort(reminders.begin(), reminders.end(), [&](const ListedReminder& a, const ListedReminder& b) {
    auto first = key(a), second = key(b);
    return first != second ? first < second : names(a) < names(b);
  });
}

}  // namespace vesp::tool
