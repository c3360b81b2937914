// Dates as people type them, read at a fixed moment (Wednesday 2026-11-25, 10:30 in Europe/Berlin).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <variant>

#include "tools/vesp/VespDates.h"

namespace vesp::tool {
namespace {

using platform::Date;

class VespDatesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
  }

  // 2026-11-25T10:30:00 local, a Wednesday.
  const Date now_ = Date::fromTimeIntervalSince1970(1795599000);
};

struct Typed {
  const char* text;
  const char* instant;  // in UTC
  bool day;
  bool utc = false;
};

TEST_F(VespDatesTest, TheMomentIsAWednesdayMorning) { EXPECT_EQ(now_.iso8601(), "2026-11-25T09:30:00Z"); }

TEST_F(VespDatesTest, DaysAndTimesAsPeopleTypeThem) {
  const Typed table[] = {
      {"today", "2026-11-24T23:00:00Z", true},
      {"Tomorrow", "2026-11-25T23:00:00Z", true},
      {"yesterday", "2026-11-23T23:00:00Z", true},
      {"wednesday", "2026-11-24T23:00:00Z", true},  // today is one
      {"wed", "2026-11-24T23:00:00Z", true},
      {"friday", "2026-11-26T23:00:00Z", true},
      {"FRI", "2026-11-26T23:00:00Z", true},
      {"monday", "2026-11-29T23:00:00Z", true},
      {"tom", "2026-11-25T23:00:00Z", true},
      {"th", "2026-11-25T23:00:00Z", true},
      {"next wednesday", "2026-12-01T23:00:00Z", true},
      {"  Next   Friday ", "2026-11-26T23:00:00Z", true},
      {"last wednesday", "2026-11-17T23:00:00Z", true},
      {"last friday", "2026-11-19T23:00:00Z", true},
      {"this friday", "2026-11-26T23:00:00Z", true},
      {"this monday", "2026-11-22T23:00:00Z", true},
      {"this week", "2026-11-22T23:00:00Z", true},
      {"next week", "2026-11-29T23:00:00Z", true},
      {"last week", "2026-11-15T23:00:00Z", true},
      {"this month", "2026-10-31T23:00:00Z", true},
      {"next month", "2026-11-30T23:00:00Z", true},
      {"last month", "2026-09-30T22:00:00Z", true},  // summer time: midnight is 22:00 UTC
      {"next year", "2026-12-31T23:00:00Z", true},
      {"+3d", "2026-11-27T23:00:00Z", true},
      {"10d", "2026-12-04T23:00:00Z", true},
      {"-2w", "2026-11-10T23:00:00Z", true},
      {"-5w", "2026-10-20T22:00:00Z", true},  // across the clock change: still local midnight
      {"2026-12-01", "2026-11-30T23:00:00Z", true},
      {"now", "2026-11-25T09:30:00Z", false},
      {"+1h30m", "2026-11-25T11:00:00Z", false},
      {"-45m", "2026-11-25T08:45:00Z", false},
      {"2h", "2026-11-25T11:30:00Z", false},
      {"1d12h", "2026-11-26T21:30:00Z", false},
      {"90s", "2026-11-25T09:31:30Z", false},
      {"14:00", "2026-11-25T13:00:00Z", false},
      {"tomorrow 14:00", "2026-11-26T13:00:00Z", false},
      {"fri 9:30", "2026-11-27T08:30:00Z", false},
      {"next month 9:00", "2026-12-01T08:00:00Z", false},
      {"2026-12-01T09:30", "2026-12-01T08:30:00Z", false},
      {"2026-12-01 09:30:15", "2026-12-01T08:30:15Z", false},
      {"2026-07-01T09:30", "2026-07-01T07:30:00Z", false},
      {"2026-12-01T08:30Z", "2026-12-01T08:30:00Z", false, true},
      {"tomorrow 08:30z", "2026-11-26T08:30:00Z", false, true},
  };
  for (const auto& row : table) {
    auto read = readTypedDate(row.text, now_);
    ASSERT_TRUE(std::holds_alternative<TypedDate>(read)) << row.text << ": " << std::get<std::string>(read);
    const auto& typed = std::get<TypedDate>(read);
    EXPECT_EQ(typed.instant.iso8601(), row.instant) << row.text;
    EXPECT_EQ(typed.day, row.day) << row.text;
    EXPECT_EQ(typed.utc, row.utc) << row.text;
  }
}

TEST_F(VespDatesTest, AmbiguousAndInvalidFormsSayWhy) {
  const std::string notADate = "is not a date: `vesp help dates` lists the forms a date may take";
  const std::pair<const char*, std::string> table[] = {
      {"", "is not a date: it is empty"},
      {"   ", "is not a date: it is empty"},
      {"to", "is ambiguous: it could mean today or tomorrow"},
      {"next to", "is ambiguous: it could mean today or tomorrow"},
      {"12/01/2026", "is ambiguous: day and month could be either way round; write the day as YYYY-MM-DD"},
      {"1/12", "is ambiguous: day and month could be either way round; write the day as YYYY-MM-DD"},
      {"2026-02-30", "is not a real date"},
      {"2026-13-01T10:00", "is not a real date"},
      {"25:00", "is not a real time of day"},
      {"tomorrow 10:60", "is not a real time of day"},
      {"t", notADate},
      {"next", notADate},
      {"next tomorrow", notADate},
      {"last fortnight", notADate},
      {"fortnight", notADate},
      {"monday tuesday", notADate},
      {"next monday friday", notADate},
      {"2026-12-01 noon", notADate},
      {"+3x", notADate},
      {"+", notADate},
      {"3d2w", notADate},
      {"+1h 10:00", notADate},
      {"2026-12-1", notADate},
  };
  for (const auto& [text, reason] : table) {
    auto read = readTypedDate(text, now_);
    ASSERT_TRUE(std::holds_alternative<std::string>(read)) << '"' << text << "\" was read as a date";
    EXPECT_EQ(std::get<std::string>(read), reason) << text;
  }
}

// Weeks that begin on another day move "this week" and "this <day>", and nothing else.
TEST_F(VespDatesTest, WeeksBeginOnTheDayChosen) {
  struct Row {
    const char* text;
    int firstWeekday;
    const char* instant;
  };
  const Row table[] = {
      {"this week", 0, "2026-11-21T23:00:00Z"},    // Sunday 22 November
      {"next week", 0, "2026-11-28T23:00:00Z"},    // Sunday 29 November
      {"last week", 6, "2026-11-13T23:00:00Z"},    // Saturday 14 November
      {"this week", 3, "2026-11-24T23:00:00Z"},    // today, a Wednesday
      {"this sunday", 0, "2026-11-21T23:00:00Z"},  // the week's first day
      {"this sunday", 1, "2026-11-28T23:00:00Z"},  // the week's last day
      {"this friday", 6, "2026-11-26T23:00:00Z"},
      {"this tuesday", 3, "2026-11-30T23:00:00Z"},  // the week runs Wednesday to Tuesday
      {"friday", 0, "2026-11-26T23:00:00Z"},        // the next one, whatever the week
      {"next month", 0, "2026-11-30T23:00:00Z"},
  };
  for (const auto& row : table) {
    auto read = readTypedDate(row.text, now_, row.firstWeekday);
    ASSERT_TRUE(std::holds_alternative<TypedDate>(read)) << row.text << ": " << std::get<std::string>(read);
    EXPECT_EQ(std::get<TypedDate>(read).instant.iso8601(), row.instant) << row.text << " from " << row.firstWeekday;
  }
  EXPECT_EQ(localWeekStartOf(now_, 0).iso8601(), "2026-11-21T23:00:00Z");
  EXPECT_EQ(localWeekStartOf(now_).iso8601(), "2026-11-22T23:00:00Z");
}

TEST_F(VespDatesTest, WeekdaysAreNamedInFullOrByABeginningOfTheirOwn) {
  EXPECT_EQ(weekdayNamed("sunday"), 0);
  EXPECT_EQ(weekdayNamed("Sun"), 0);
  EXPECT_EQ(weekdayNamed("SA"), 6);
  EXPECT_EQ(weekdayNamed("mo"), 1);
  EXPECT_EQ(weekdayNamed("th"), 4);
  EXPECT_EQ(weekdayNamed("s"), std::nullopt);  // Saturday or Sunday
  EXPECT_EQ(weekdayNamed("t"), std::nullopt);
  EXPECT_EQ(weekdayNamed("today"), std::nullopt);
  EXPECT_EQ(weekdayNamed("tom"), std::nullopt);
  EXPECT_EQ(weekdayNamed("mondays"), std::nullopt);
  EXPECT_EQ(weekdayNamed(""), std::nullopt);
}

TEST_F(VespDatesTest, LocalDaysAreCountedOnTheWallClock) {
  // 2026-03-29 has 23 hours in Berlin: a day later is still midnight.
  const Date midnight = Date::fromTimeIntervalSince1970(1774738800);  // 2026-03-29T00:00 local
  EXPECT_EQ(midnight.iso8601(), "2026-03-28T23:00:00Z");
  EXPECT_EQ(addLocalDays(midnight, 1).iso8601(), "2026-03-29T22:00:00Z");
  EXPECT_EQ(localMidnightOf(midnight.addingTimeInterval(23 * 3600 - 1)).iso8601(), "2026-03-28T23:00:00Z");
}

}  // namespace
}  // namespace vesp::tool
