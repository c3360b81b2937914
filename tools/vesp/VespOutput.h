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

namespace vesp::tool {

nlohmann::json toJSON(const VespCalendar& calendar);
nlohmann::json toJSON(const VespEventInstance& event);
nlohmann::json toJSON(const VespReminder& reminder);
nlohmann::json toJSON(const vdir::VdirDiagnostic& diagnostic);

// Text from calendar files made safe for a terminal: control characters (escape included) are
// shown as "\xNN" instead of being sent.
std::string neutralised(const std::string& text);

struct HumanStyle {
  bool colour = false;  // 24-bit colour swatches for calendars
};

void printCalendars(std::ostream& out, const std::vector<VespCalendar>& calendars, const HumanStyle& style);
// An agenda grouped by local day, times in the local zone.
void printAgenda(std::ostream& out, const std::vector<VespEventInstance>& events, const HumanStyle& style);
void printEvent(std::ostream& out, const VespEventInstance& event, const HumanStyle& style);
void printReminders(std::ostream& out, const std::vector<VespReminder>& reminders, const HumanStyle& style);
void printReminder(std::ostream& out, const VespReminder& reminder, const HumanStyle& style);

// "#RRGGBB" of a colour.
std::string hexColour(const platform::CGColorRef& colour);

}  // namespace vesp::tool
