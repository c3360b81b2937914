// Calendar date components, any of which may be absent: a due date of year, month and day only
// keeps just those three.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "support/platform/TimeZone.h"

namespace vesp::platform {

struct DateComponents {
  std::optional<std::string> calendar;  // calendar system identifier, e.g. "gregorian"
  std::optional<TimeZone> timeZone;
  std::optional<std::int64_t> era;
  std::optional<std::int64_t> year;
  std::optional<std::int64_t> month;
  std::optional<std::int64_t> day;
  std::optional<std::int64_t> hour;
  std::optional<std::int64_t> minute;
  std::optional<std::int64_t> second;
  std::optional<std::int64_t> nanosecond;
  std::optional<std::int64_t> weekday;
  std::optional<std::int64_t> weekdayOrdinal;
  std::optional<std::int64_t> quarter;
  std::optional<std::int64_t> weekOfMonth;
  std::optional<std::int64_t> weekOfYear;
  std::optional<std::int64_t> yearForWeekOfYear;

  friend bool operator==(const DateComponents&, const DateComponents&) = default;
};

// DateComponents(year: 2026, month: 11, day: 22, timeZone: UTC), present components only.
std::ostream& operator<<(std::ostream& out, const DateComponents& components);

}  // namespace vesp::platform
