// Dates and times as people type them ("tomorrow 14:00", "friday", "+3d", "next month",
// "2026-12-01T09:30"), read in the local zone (TZ), and the local-day arithmetic that the views and
// the command line share.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "support/platform/Date.h"

namespace vesp::tool {

// The local calendar fields of `date` (localtime_r).
std::tm localFieldsOf(platform::Date date);
// Local midnight of `date`'s local day, and whole local days added (a day across a clock change is
// not 24 hours).
platform::Date localMidnightOf(platform::Date date);
platform::Date addLocalDays(platform::Date date, int days);
// Weekdays are numbered as std::tm has them: 0 Sunday to 6 Saturday.
inline constexpr int kMonday = 1;
// Local midnight of the day that begins `date`'s week (weeks begin on `firstWeekday`), and of the
// first day of its month, `monthsLater` months on.
platform::Date localWeekStartOf(platform::Date date, int firstWeekday = kMonday);
platform::Date localMonthStartOf(platform::Date date, int monthsLater = 0);

// A date as typed: a whole local day (`instant` is its midnight) or a moment.
struct TypedDate {
  platform::Date instant;
  bool day = false;  // a day without a time of day
  bool utc = false;  // a moment written in UTC (ending in Z)
};

// Reads `text` as it stands at `now`, in weeks that begin on `firstWeekday` ("this week", "this
// friday"). On failure, why, as words that follow the text in a message: "is not a date: ...",
// "is not a real date", "is ambiguous: ...".
std::variant<TypedDate, std::string> readTypedDate(std::string_view text, platform::Date now,
                                                   int firstWeekday = kMonday);

// The weekday `name` names, in any case ("sunday", "Sun", "su": a beginning that names one day
// alone), or nothing.
std::optional<int> weekdayNamed(std::string_view name);

// The forms readTypedDate takes, as `vesp help dates` prints them.
extern const char* const kDateForms;

}  // namespace vesp::tool
