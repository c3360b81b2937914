#include "support/platform/DateComponents.h"

namespace vesp::platform {

std::ostream& operator<<(std::ostream& out, const DateComponents& c) {
  out << "DateComponents(";
  bool first = true;
  auto field = [&](const char* name, const auto& value) {
    if (!value) return;
    out << (first ? "" : ", ") << name << ": " << *value;
    first = false;
  };
  field("calendar", c.calendar);
  if (c.timeZone) {
    out << (first ? "" : ", ") << "timeZone: " << c.timeZone->identifier();
    first = false;
  }
  field("era", c.era);
  field("year", c.year);
  field("month", c.month);
  field("day", c.day);
  field("hour", c.hour);
  field("minute", c.minute);
  field("second", c.second);
  field("nanosecond", c.nanosecond);
  field("weekday", c.weekday);
  field("weekdayOrdinal", c.weekdayOrdinal);
  field("quarter", c.quarter);
  field("weekOfMonth", c.weekOfMonth);
  field("weekOfYear", c.weekOfYear);
  field("yearForWeekOfYear", c.yearForWeekOfYear);
  return out << ")";
}

}  // namespace vesp::platform
