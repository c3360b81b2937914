// What the vesp program prints: records as JSON with the data model's own field names (dates as
// ISO 8601 text in UTC, the occurrence identifier in its coded form), and the human views.
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "Vesp/VespCalendar.h"
#include "Vesp/VespEventInstance.h"
#include "Vesp/VespReminder.h"
#include "platforms/vdir/VdirItem.h"
#include "tools/vesp/VespDates.h"
#include "tools/vesp/VespJsonWriter.h"
#include "tools/vesp/VespReminderList.h"

namespace vesp::tool {

void writeJSON(VespJsonWriter& out, const VespCalendar& calendar);
// The identifier in its coded form, the bytes the coder's text gives when parsed and written again
// (`vesp event` reads it back), but written straight out: coding each record's identifier to text
// and parsing it again took a tenth of a large listing.
void writeJSON(VespJsonWriter& out, const VespEventInstanceIdentifier& identifier);
// With a `reference`, the occurrence's short reference is a member too.
void writeJSON(VespJsonWriter& out, const VespEventInstance& event, const std::string* reference = nullptr);
// With `cancelled`, whether the to-do was cancelled is a member too (isCancelled).
void writeJSON(VespJsonWriter& out, const VespReminder& reminder, std::optional<bool> cancelled = std::nullopt);
void writeJSON(VespJsonWriter& out, const ListedReminder& listed);
nlohmann::json toJSON(const vdir::VdirDiagnostic& diagnostic);

// Text from calendar files made safe for a terminal: control characters (escape included) are
// shown as "\xNN", and C1 controls (U+0080-U+009F) as "\uNNNN", instead of being sent. With
// `lineIndent`, the text may span lines: line breaks (CRLF or LF) start a new line indented by it,
// and tabs stay tabs.
std::string neutralised(const std::string& text, const std::string* lineIndent = nullptr);

struct HumanStyle {
  bool colour = false;  // 24-bit colour swatches for calendars
  int firstWeekday = kMonday;  // the day a month grid's weeks begin on (0 Sunday to 6 Saturday)
};

// Short references to occurrences that a person can type: "YYYYMMDD-xxxx", the local day the
// agenda shows the occurrence under, then the first hex digits (4 to 16) of a hash of its event
// and original occurrence date, as many as make it unique among that day's occurrences.
std::string agendaDay(const VespEventInstance& event);  // "YYYYMMDD"
std::string occurrenceHash(const VespEventInstance& event);  // 16 hex digits
// The reference of each of `events`, given every occurrence of their days (a superset of them).
std::vector<std::string> references(const std::vector<VespEventInstance>& events,
                                    const std::vector<VespEventInstance>& sameDays);

void printCalendars(std::ostream& out, const std::vector<VespCalendar>& calendars, const HumanStyle& style);
// The agenda of [windowStart, windowEnd), grouped by local day, times in the local zone. An
// occurrence over several days shows on each of its days in the window, with "(day 2/5)"; a
// cancelled one says CANCELLED. With `refs`, each occurrence's reference opens its lines.
void printAgenda(std::ostream& out, const std::vector<VespEventInstance>& events, platform::Date windowStart,
                 platform::Date windowEnd, const HumanStyle& style, const std::vector<std::string>* refs = nullptr);
// The month of `month` as a grid of weeks from the style's first weekday, as `cal` draws it, each day on which one of
// `events` falls marked with "*", then a blank line and the month's agenda.
void printMonth(std::ostream& out, const std::vector<VespEventInstance>& events, platform::Date month,
                const HumanStyle& style, const std::vector<std::string>* refs = nullptr);
// One line per occurrence: `format` with each "{field}" replaced (see kEventFields), "{{" and "}}"
// standing for braces. Check it first with formatProblem.
void printFormatted(std::ostream& out, const std::vector<VespEventInstance>& events, const std::string& format);
// Why `format` cannot be used ("{when} is not a field: ..."), or nothing.
std::optional<std::string> formatProblem(const std::string& format);
void printEvent(std::ostream& out, const VespEventInstance& event, const HumanStyle& style);
// One line each, in the order given: "[ ]" open, "[x]" completed, "[-]" cancelled (and said at the
// end), then "!!!", "!!" or "!" for a high, medium or low priority.
void printReminders(std::ostream& out, const std::vector<ListedReminder>& reminders, const HumanStyle& style);
void printReminder(std::ostream& out, const ListedReminder& reminder, const HumanStyle& style);

// "#RRGGBB" of a colour.
std::string hexColour(const platform::CGColorRef& colour);

}  // namespace vesp::tool
