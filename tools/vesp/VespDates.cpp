#include "tools/vesp/VespDates.h"

#include <cctype>
#include <cmath>
#include <ctime>
#include <optional>
#include <regex>
#include <sstream>
#include <vector>

namespace vesp::tool {

using platform::Date;

std::tm localFieldsOf(Date date) {
  auto seconds = static_cast<std::time_t>(std::floor(date.timeIntervalSince1970()));
  std::tm fields{};
  localtime_r(&seconds, &fields);
  return fields;
}

namespace {

// The moment of a local wall-clock time; fields out of range carry over (day 32 is the next
// month's first), and a time a clock change skips is moved past it.
Date fromLocal(std::tm fields) {
  fields.tm_isdst = -1;
  return Date::fromTimeIntervalSince1970(static_cast<double>(std::mktime(&fields)));
}

}  // namespace

Date localMidnightOf(Date date) {
  std::tm fields = localFieldsOf(date);
  fields.tm_hour = fields.tm_min = fields.tm_sec = 0;
  return fromLocal(fields);
}

Date addLocalDays(Date date, int days) {
  std::tm fields = localFieldsOf(date);
  fields.tm_mday += days;
  return fromLocal(fields);
}

Date localWeekStartOf(Date date, int firstWeekday) {
  const Date midnight = localMidnightOf(date);
  return addLocalDays(midnight, -((localFieldsOf(midnight).tm_wday - firstWeekday + 7) % 7));
}

Date localMonthStartOf(Date date, int monthsLater) {
  std::tm fields = localFieldsOf(date);
  fields.tm_mday = 1;
  fields.tm_mon += monthsLater;
  fields.tm_hour = fields.tm_min = fields.tm_sec = 0;
  return fromLocal(fields);
}

namespace {

using Reading = std::variant<TypedDate, std::string>;
// A day read from words: none (the words are no day), its local midnight, or why it is wrong.
using DayReading = std::variant<std::monostate, Date, std::string>;

const char* const kNotADate = "is not a date: `vesp help dates` lists the forms a date may take";

struct DayWord {
  const char* name;
  int weekday;  // 0 Sunday to 6 Saturday; -1 for a day counted from today
  int fromToday;
};
constexpr DayWord kDayWords[] = {
    {"today", -1, 0},     {"tomorrow", -1, 1},  {"yesterday", -1, -1}, {"monday", 1, 0},  {"tuesday", 2, 0},
    {"wednesday", 3, 0},  {"thursday", 4, 0},   {"friday", 5, 0},      {"saturday", 6, 0}, {"sunday", 0, 0},
};

// The day words `typed` names: itself, or every one it begins with two letters or more.
std::vector<const DayWord*> dayWordsFor(std::string_view typed) {
  std::vector<const DayWord*> found;
  for (const auto& word : kDayWords) {
    const std::string_view name = word.name;
    if (name == typed) return {&word};
    if (typed.size() >= 2 && name.substr(0, typed.size()) == typed) found.push_back(&word);
  }
  return found;
}

// The one day word `typed` names, or why there is none (nullptr and no reason: it is no day word).
std::variant<const DayWord*, std::string> oneDayWord(std::string_view typed) {
  auto found = dayWordsFor(typed);
  if (found.size() <= 1) return found.empty() ? nullptr : found[0];
  std::string names;
  for (std::size_t i = 0; i < found.size(); ++i)
    names += std::string(i == 0 ? "" : i + 1 == found.size() ? " or " : ", ") + found[i]->name;
  return "is ambiguous: it could mean " + names;
}

// The days from a day of weekday `from` to the next `weekday`: 0 to 6, or 1 to 7 `after` it.
int daysUntil(int from, int weekday, bool after) {
  const int days = (weekday - from + 7) % 7;
  return after && days == 0 ? 7 : days;
}

// YYYY-MM-DD, checked to be a real day.
DayReading isoDay(const std::string& word) {
  static const std::regex pattern(R"((\d{4})-(\d{2})-(\d{2}))");
  std::smatch match;
  if (!std::regex_match(word, match, pattern)) return std::monostate{};
  std::tm fields{};
  fields.tm_year = std::stoi(match[1]) - 1900;
  fields.tm_mon = std::stoi(match[2]) - 1;
  fields.tm_mday = std::stoi(match[3]);
  const std::tm given = fields;
  const Date day = fromLocal(fields);
  const std::tm made = localFieldsOf(day);
  if (made.tm_mday != given.tm_mday || made.tm_mon != given.tm_mon) return std::string("is not a real date");
  return day;
}

// "+3d", "-2w", "1h30m": weeks and days alone count from today, to a day; with hours, minutes or
// seconds they count from now, to a moment (days on the local calendar, then the time).
std::optional<TypedDate> offset(const std::string& word, Date now, bool dayOnly) {
  static const std::regex pattern(
      R"(([+-]?)(?:(\d{1,4})w)?(?:(\d{1,5})d)?(?:(\d{1,6})h)?(?:(\d{1,7})m)?(?:(\d{1,9})s)?)");
  std::smatch match;
  if (!std::regex_match(word, match, pattern)) return std::nullopt;
  auto part = [&](int at) { return match[at].matched ? std::stoll(match[at]) : 0LL; };
  const bool days = match[2].matched || match[3].matched;
  const bool time = match[4].matched || match[5].matched || match[6].matched;
  if ((!days && !time) || (dayOnly && time)) return std::nullopt;
  const int sign = match[1] == "-" ? -1 : 1;
  const int dayCount = sign * static_cast<int>(part(2) * 7 + part(3));
  if (!time) return TypedDate{addLocalDays(localMidnightOf(now), dayCount), true, false};
  const long long seconds = part(4) * 3600 + part(5) * 60 + part(6);
  return TypedDate{addLocalDays(now, dayCount).addingTimeInterval(static_cast<double>(sign * seconds)), false, false};
}

// One word naming a day: a date, a day word, or days from today.
DayReading dayOfWord(const std::string& word, Date now) {
  if (auto iso = isoDay(word); !std::holds_alternative<std::monostate>(iso)) return iso;
  if (auto days = offset(word, now, true)) return days->instant;
  auto named = oneDayWord(word);
  if (auto* reason = std::get_if<std::string>(&named)) return *reason;
  const DayWord* day = std::get<const DayWord*>(named);
  if (!day) return std::monostate{};
  const Date today = localMidnightOf(now);
  if (day->weekday < 0) return addLocalDays(today, day->fromToday);
  return addLocalDays(today, daysUntil(localFieldsOf(today).tm_wday, day->weekday, false));
}

// "this", "next" or "last", then a weekday, "week", "month" or "year".
DayReading dayOfPhrase(const std::string& which, const std::string& what, Date now, int firstWeekday) {
  const int step = which == "next" ? 1 : which == "last" ? -1 : which == "this" ? 0 : 2;
  if (step == 2) return std::monostate{};
  const Date today = localMidnightOf(now);
  const std::tm fields = localFieldsOf(today);
  if (what == "week") return addLocalDays(localWeekStartOf(today, firstWeekday), 7 * step);
  if (what == "month") return localMonthStartOf(today, step);
  if (what == "year") return localMonthStartOf(today, 12 * step - fields.tm_mon);
  auto named = oneDayWord(what);
  if (auto* reason = std::get_if<std::string>(&named)) return *reason;
  const DayWord* day = std::get<const DayWord*>(named);
  if (!day || day->weekday < 0) return std::monostate{};
  if (step == 0)
    return addLocalDays(localWeekStartOf(today, firstWeekday), daysUntil(firstWeekday, day->weekday, false));
  if (step > 0) return addLocalDays(today, daysUntil(fields.tm_wday, day->weekday, true));
  return addLocalDays(today, -daysUntil(day->weekday, fields.tm_wday, true));
}

bool looksLikeTime(const std::string& word) {
  static const std::regex pattern(R"(\d{1,2}:\d{2}(:\d{2})?z?)");
  return std::regex_match(word, pattern);
}

// `day` at the time of day `word` (HH:MM[:SS], in UTC when it ends in z).
Reading atTime(Date day, const std::string& word) {
  static const std::regex pattern(R"((\d{1,2}):(\d{2})(?::(\d{2}))?(z)?)");
  std::smatch match;
  std::regex_match(word, match, pattern);
  std::tm fields = localFieldsOf(day);
  fields.tm_hour = std::stoi(match[1]);
  fields.tm_min = std::stoi(match[2]);
  fields.tm_sec = match[3].matched ? std::stoi(match[3]) : 0;
  if (fields.tm_hour > 23 || fields.tm_min > 59 || fields.tm_sec > 59) return std::string("is not a real time of day");
  if (!match[4].matched) return TypedDate{fromLocal(fields), false, false};
  return TypedDate{Date::fromTimeIntervalSince1970(static_cast<double>(timegm(&fields))), false, true};
}

std::string lowered(std::string_view text) {
  std::string lower;
  for (char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

// The words of `text`, in lower case; a date and time joined by T are two words.
std::vector<std::string> wordsOf(std::string_view text) {
  std::istringstream in(lowered(text));
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  static const std::regex joined(R"((\d{4}-\d{2}-\d{2})t(.*))");
  std::smatch match;
  if (words.size() == 1 && std::regex_match(words[0], match, joined)) words = {match[1], match[2]};
  return words;
}

}  // namespace

Reading readTypedDate(std::string_view text, Date now, int firstWeekday) {
  std::vector<std::string> words = wordsOf(text);
  if (words.empty()) return std::string("is not a date: it is empty");
  if (words.size() == 1 && words[0] == "now") return TypedDate{now, false, false};
  if (words.size() == 1)
    if (auto moment = offset(words[0], now, false)) return *moment;
  static const std::regex slashed(R"(\d{1,4}/\d{1,2}(/\d{1,4})?)");
  if (words.size() == 1 && std::regex_match(words[0], slashed))
    return std::string("is ambiguous: day and month could be either way round; write the day as YYYY-MM-DD");
  // A day, then perhaps a time of day; a time alone is today's.
  std::optional<std::string> time;
  if (looksLikeTime(words.back())) {
    time = words.back();
    words.pop_back();
    if (words.empty()) words.push_back("today");
  }
  DayReading day = words.size() == 1   ? dayOfWord(words[0], now)
                   : words.size() == 2 ? dayOfPhrase(words[0], words[1], now, firstWeekday)
                                       : DayReading{};
  if (std::holds_alternative<std::monostate>(day)) return std::string(kNotADate);
  if (auto* reason = std::get_if<std::string>(&day)) return *reason;
  if (!time) return TypedDate{std::get<Date>(day), true, false};
  return atTime(std::get<Date>(day), *time);
}

std::optional<int> weekdayNamed(std::string_view name) {
  auto named = oneDayWord(lowered(name));
  const DayWord* const* day = std::get_if<const DayWord*>(&named);
  if (!day || !*day || (*day)->weekday < 0) return std::nullopt;
  return (*day)->weekday;
}

const char* const kDateForms =
    R"(Dates and times, wherever vesp reads one (--from, --to, --start, --end, --due, --occurrence,
and --alarm at a set time), in the local zone. Case does not matter, and words may be shortened
while they name one word alone (tom, fri, wed; "to" could be today or tomorrow).

  2026-12-01                 a day (from its local midnight)
  2026-12-01T09:30           a local time (also 2026-12-01 09:30; seconds may follow: 09:30:15)
  2026-12-01T08:30Z          a time in UTC
  today, tomorrow, yesterday
  monday ... sunday          the next such day, today when today is one
  next friday, last friday   the next one after today, the last one before it
  this friday                the Friday of this week (weeks begin on Monday, or on --week-start)
  this week, next week       the day that begins the week (also last week)
  this month, next month     the first day of the month (also last month)
  this year, next year       the first of January (also last year)
  14:00                      today at that time; a time may follow any day: tomorrow 14:00, fri 9:30
  now                        this moment
  +3d, -2w, 10d              days or weeks from today (w weeks, d days)
  +1h30m, -45m, 2h, 1d12h    a time from now (h hours, m minutes, s seconds; days or weeks may lead)

A period ends before its end: --from today --to tomorrow is today alone. In 12/01/2026 day and
month could be either way round, so such forms are refused: write 2026-12-01.
)";

}  // namespace vesp::tool
