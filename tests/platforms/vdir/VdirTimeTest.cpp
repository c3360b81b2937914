// Times as files state them and the instants they fall at: the civil calendar, the local zone for
// floating times and dates, zones across their changes, and the way back to a wall clock.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>

#include "platforms/vdir/VdirTime.h"
#include "platforms/vdir/VdirZones.h"

namespace vesp::vdir {
namespace {

icaltimetype wall(int year, int month, int day, int hour, int minute, int second = 0) {
  icaltimetype time = icaltime_null_time();
  time.year = year;
  time.month = month;
  time.day = day;
  time.hour = hour;
  time.minute = minute;
  time.second = second;
  time.is_date = 0;
  return time;
}

VdirTime floating(int year, int month, int day, int hour, int minute) {
  VdirTime time;
  time.kind = VdirTime::Kind::floating;
  time.local = wall(year, month, day, hour, minute);
  return time;
}

VdirTime date(int year, int month, int day) {
  VdirTime time;
  time.kind = VdirTime::Kind::date;
  time.local = wall(year, month, day, 0, 0);
  time.local.is_date = 1;
  return time;
}

VdirTime utcTime(int year, int month, int day, int hour, int minute) {
  VdirTime time = floating(year, month, day, hour, minute);
  time.kind = VdirTime::Kind::utc;
  return time;
}

VdirTime zoned(const std::string& name, int year, int month, int day, int hour, int minute) {
  VdirTime time = floating(year, month, day, hour, minute);
  time.kind = VdirTime::Kind::zoned;
  time.zone = builtinZone(name);
  time.tzid = name;
  return time;
}

double seconds(platform::Date date) { return date.timeIntervalSince1970(); }

TEST(VdirTimeTest, CivilSecondsCountFromTheEpochInEveryEra) {
  EXPECT_EQ(civilSecondsSince1970(1970, 1, 1, 0, 0, 0), 0.0);
  EXPECT_EQ(civilSecondsSince1970(1969, 12, 31, 23, 59, 59), -1.0);
  EXPECT_EQ(civilSecondsSince1970(2000, 3, 1, 0, 0, 0), 951868800.0);
  EXPECT_EQ(civilSecondsSince1970(2024, 2, 29, 12, 0, 0), 1709208000.0);  // a leap day
  EXPECT_EQ(civilSecondsSince1970(2100, 3, 1, 0, 0, 0), 4107542400.0);
  // 2100 is no leap year: 28 February is followed by 1 March.
  EXPECT_EQ(civilSecondsSince1970(2100, 3, 1, 0, 0, 0) - civilSecondsSince1970(2100, 2, 28, 0, 0, 0), 86400.0);
  EXPECT_EQ(civilSecondsSince1970(2000, 3, 1, 0, 0, 0) - civilSecondsSince1970(2000, 2, 28, 0, 0, 0), 2 * 86400.0);
  EXPECT_EQ(civilSecondsSince1970(1, 1, 1, 0, 0, 0), -62135596800.0);
}

TEST(VdirTimeTest, FloatingTimesAndDatesFallInTheLocalZone) {
  VdirClock clock("Europe/Berlin");
  EXPECT_EQ(clock.localZoneName(), "Europe/Berlin");
  EXPECT_NE(clock.localZone(), nullptr);
  EXPECT_EQ(seconds(clock.instant(floating(2026, 7, 1, 12, 0))), civilSecondsSince1970(2026, 7, 1, 10, 0, 0));
  EXPECT_EQ(seconds(clock.instant(floating(2026, 1, 15, 12, 0))), civilSecondsSince1970(2026, 1, 15, 11, 0, 0));
  // A date starts at local midnight.
  EXPECT_EQ(seconds(clock.instant(date(2026, 1, 1))), civilSecondsSince1970(2025, 12, 31, 23, 0, 0));
  EXPECT_EQ(seconds(clock.instant(date(2026, 7, 1))), civilSecondsSince1970(2026, 6, 30, 22, 0, 0));
}

TEST(VdirTimeTest, UtcTimesIgnoreTheLocalZoneAndZonedTimesFollowTheirOwn) {
  VdirClock clock("Europe/Berlin");
  EXPECT_EQ(seconds(clock.instant(utcTime(2026, 7, 1, 12, 0))), civilSecondsSince1970(2026, 7, 1, 12, 0, 0));
  EXPECT_EQ(seconds(clock.instant(zoned("America/New_York", 2026, 1, 15, 9, 0))),
            civilSecondsSince1970(2026, 1, 15, 14, 0, 0));
  EXPECT_EQ(seconds(clock.instant(zoned("America/New_York", 2026, 7, 15, 9, 0))),
            civilSecondsSince1970(2026, 7, 15, 13, 0, 0));
  EXPECT_EQ(seconds(clock.instant(zoned("Asia/Kolkata", 2026, 7, 15, 9, 0))),
            civilSecondsSince1970(2026, 7, 15, 3, 30, 0));
  // instantLike places other wall-clock fields in the zone of its model.
  EXPECT_EQ(seconds(clock.instantLike(wall(2026, 12, 24, 18, 0), zoned("America/New_York", 2026, 7, 15, 9, 0))),
            civilSecondsSince1970(2026, 12, 24, 23, 0, 0));
}

TEST(VdirTimeTest, AnUnknownOrEmptyLocalZoneMeansUtc) {
  for (const char* name : {"", "No/Such_Zone", "UTC"}) {
    VdirClock clock(name);
    EXPECT_EQ(clock.localZoneName(), "UTC") << name;
    EXPECT_EQ(clock.localZone(), nullptr) << name;
    EXPECT_EQ(seconds(clock.instant(floating(2026, 7, 1, 12, 0))), civilSecondsSince1970(2026, 7, 1, 12, 0, 0));
    EXPECT_EQ(seconds(clock.instant(date(2026, 7, 1))), civilSecondsSince1970(2026, 7, 1, 0, 0, 0));
  }
}

TEST(VdirTimeTest, WallClocksRoundTripThroughAYearOfZoneChanges) {
  VdirClock clock("Europe/Berlin");
  const VdirTime like = floating(2026, 1, 1, 0, 0);
  const double repeatedHourBegins = civilSecondsSince1970(2026, 10, 25, 0, 0, 0);
  int repeated = 0;
  for (double at = civilSecondsSince1970(2026, 1, 1, 0, 0, 0); at < civilSecondsSince1970(2027, 1, 1, 0, 0, 0);
       at += 1800) {
    icaltimetype clockTime = clock.wallClockLike(platform::Date::fromTimeIntervalSince1970(at), like);
    double back = seconds(clock.instantLike(clockTime, like));
    if (at >= repeatedHourBegins && at < repeatedHourBegins + 7200) {
      // 02:00-03:00 happens twice on 25 October: each wall time there names the first of its two.
      ++repeated;
      EXPECT_EQ(back, at < repeatedHourBegins + 3600 ? at : at - 3600) << at;
    } else {
      EXPECT_EQ(back, at) << icaltime_as_ical_string(clockTime);
    }
  }
  EXPECT_EQ(repeated, 4);
  // Across the spring change the wall clock jumps from 01:59:59 to 03:00:00.
  icaltimetype before = clock.wallClockLike(
      platform::Date::fromTimeIntervalSince1970(civilSecondsSince1970(2026, 3, 29, 0, 59, 59)), like);
  icaltimetype after =
      clock.wallClockLike(platform::Date::fromTimeIntervalSince1970(civilSecondsSince1970(2026, 3, 29, 1, 0, 0)), like);
  EXPECT_EQ(std::make_tuple(before.hour, before.minute, before.second), std::make_tuple(1, 59, 59));
  EXPECT_EQ(std::make_tuple(after.hour, after.minute, after.second), std::make_tuple(3, 0, 0));
}

// A wall-clock time that occurs twice names the first of them; one in a gap is read with the
// offset before the gap (RFC 5545's own examples first), in zones north and south, with a change of
// half an hour, and for a day that begins in a gap.
TEST(VdirTimeTest, ATimeThatOccursTwiceIsTheFirstAndOneInAGapTakesTheOffsetBeforeIt) {
  VdirClock clock("Europe/Berlin");
  auto at = [&](const VdirTime& time) { return seconds(clock.instant(time)); };
  EXPECT_EQ(at(zoned("America/New_York", 2007, 11, 4, 1, 30)), civilSecondsSince1970(2007, 11, 4, 5, 30, 0));  // EDT
  EXPECT_EQ(at(zoned("America/New_York", 2007, 3, 11, 2, 30)), civilSecondsSince1970(2007, 3, 11, 7, 30, 0));  // 03:30
  EXPECT_EQ(at(floating(2027, 10, 31, 2, 30)), civilSecondsSince1970(2027, 10, 31, 0, 30, 0));  // CEST
  EXPECT_EQ(at(floating(2027, 10, 31, 3, 0)), civilSecondsSince1970(2027, 10, 31, 2, 0, 0));   // CET, after it
  EXPECT_EQ(at(floating(2027, 10, 31, 1, 59)), civilSecondsSince1970(2027, 10, 30, 23, 59, 0));
  EXPECT_EQ(at(floating(2027, 3, 28, 2, 30)), civilSecondsSince1970(2027, 3, 28, 1, 30, 0));  // 03:30 CEST
  EXPECT_EQ(at(floating(2027, 3, 28, 3, 0)), civilSecondsSince1970(2027, 3, 28, 1, 0, 0));
  EXPECT_EQ(at(zoned("Australia/Sydney", 2027, 4, 4, 2, 30)), civilSecondsSince1970(2027, 4, 3, 15, 30, 0));  // AEDT
  EXPECT_EQ(at(zoned("Australia/Sydney", 2027, 10, 3, 2, 30)), civilSecondsSince1970(2027, 10, 2, 16, 30, 0));
  EXPECT_EQ(at(zoned("Australia/Lord_Howe", 2027, 4, 4, 1, 45)), civilSecondsSince1970(2027, 4, 3, 14, 45, 0));
  EXPECT_EQ(at(zoned("Australia/Lord_Howe", 2027, 10, 3, 2, 15)), civilSecondsSince1970(2027, 10, 2, 15, 45, 0));
  VdirClock saoPaulo("America/Sao_Paulo");  // clocks went from 00:00 to 01:00 on 15 October 2017
  EXPECT_EQ(seconds(saoPaulo.instant(date(2017, 10, 15))), civilSecondsSince1970(2017, 10, 15, 3, 0, 0));
  EXPECT_EQ(seconds(saoPaulo.instant(date(2017, 10, 16))), civilSecondsSince1970(2017, 10, 16, 2, 0, 0));
}

TEST(VdirTimeTest, AWallClockLikeADateIsTheLocalDay) {
  VdirClock clock("Europe/Berlin");
  icaltimetype day =
      clock.wallClockLike(platform::Date::fromTimeIntervalSince1970(civilSecondsSince1970(2026, 1, 1, 23, 30, 0)),
                          date(2026, 1, 1));
  EXPECT_EQ(day.is_date, 1);
  EXPECT_EQ(std::make_tuple(day.year, day.month, day.day), std::make_tuple(2026, 1, 2));
  // In New York that instant is still the first.
  icaltimetype there =
      clock.wallClockLike(platform::Date::fromTimeIntervalSince1970(civilSecondsSince1970(2026, 1, 1, 23, 30, 0)),
                          zoned("America/New_York", 2026, 1, 1, 0, 0));
  EXPECT_EQ(std::make_tuple(there.day, there.hour, there.minute), std::make_tuple(1, 18, 30));
}

TEST(VdirTimeTest, DateComponentsSayWhatTheFileSays) {
  platform::DateComponents day = dateComponents(date(2026, 11, 24));
  EXPECT_EQ(day.year, 2026);
  EXPECT_EQ(day.month, 11);
  EXPECT_EQ(day.day, 24);
  EXPECT_EQ(day.hour, std::nullopt);
  EXPECT_EQ(day.timeZone, std::nullopt);

  platform::DateComponents local = dateComponents(floating(2026, 11, 24, 9, 30));
  EXPECT_EQ(local.hour, 9);
  EXPECT_EQ(local.minute, 30);
  EXPECT_EQ(local.second, 0);
  EXPECT_EQ(local.timeZone, std::nullopt);

  EXPECT_EQ(dateComponents(utcTime(2026, 11, 24, 9, 30)).timeZone, platform::TimeZone("UTC"));
  EXPECT_EQ(dateComponents(zoned("America/New_York", 2026, 11, 24, 9, 30)).timeZone,
            platform::TimeZone("America/New_York"));
}

}  // namespace
}  // namespace vesp::vdir
