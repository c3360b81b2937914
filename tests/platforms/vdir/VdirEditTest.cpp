// Edits of series and to-dos: the lines each operation writes, the forms of its times, what it
// leaves alone, and the occurrences an independent libical expansion finds in the result.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platforms/vdir/VdirEdit.h"
#include "platforms/vdir/VdirZones.h"
#include "tests/platforms/vdir/VdirTestSupport.h"
#include "tests/tools/vesp/IndependentExpansion.h"

namespace vesp::vdir {
namespace {

using ::testing::HasSubstr;

const std::string kBerlin =
    "BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\nBEGIN:DAYLIGHT\r\nTZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\n"
    "TZNAME:CEST\r\nDTSTART:19700329T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\nEND:DAYLIGHT\r\n"
    "BEGIN:STANDARD\r\nTZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nTZNAME:CET\r\nDTSTART:19701025T030000\r\n"
    "RRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";

// Weekly from Monday 19 October 2026, 09:00 in Berlin (summer time), ten times: the 16th of
// November excluded, the 23rd retitled, the 30th moved to 14:00.
const std::string kSeries =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//Writer//EN\r\n" + kBerlin +
    "BEGIN:VEVENT\r\nUID:weekly@example.org\r\nDTSTAMP:20261001T000000Z\r\n"
    "DTSTART;TZID=Europe/Berlin:20261019T090000\r\nDTEND;TZID=Europe/Berlin:20261019T100000\r\n"
    "RRULE:FREQ=WEEKLY;COUNT=10\r\nEXDATE;TZID=Europe/Berlin:20261116T090000\r\nSUMMARY:Team\r\n"
    "X-OTHER-APP;X-P=1:kept\\, as written\r\nSEQUENCE:2\r\n"
    "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Team\r\nTRIGGER:-PT10M\r\nEND:VALARM\r\nEND:VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:weekly@example.org\r\nRECURRENCE-ID;TZID=Europe/Berlin:20261123T090000\r\n"
    "DTSTART;TZID=Europe/Berlin:20261123T090000\r\nDTEND;TZID=Europe/Berlin:20261123T100000\r\n"
    "SUMMARY:Team (retro)\r\nSEQUENCE:2\r\nEND:VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:weekly@example.org\r\nRECURRENCE-ID;TZID=Europe/Berlin:20261130T090000\r\n"
    "DTSTART;TZID=Europe/Berlin:20261130T140000\r\nDTEND;TZID=Europe/Berlin:20261130T150000\r\n"
    "SUMMARY:Team\r\nSEQUENCE:2\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";

const std::string kUid = "weekly@example.org";

// Seconds since 1970 of a Berlin wall-clock time in late 2026 (summer time until 25 October).
long long berlin(int month, int day, int hour, int minute = 0) {
  const bool summer = month < 10 || (month == 10 && day < 25);
  return static_cast<long long>(civilSecondsSince1970(2026, month, day, hour, minute, 0)) - (summer ? 7200 : 3600);
}

VdirTime dateOf(int year, int month, int day) {
  VdirTime time;
  time.kind = VdirTime::Kind::date;
  time.local = icaltime_null_time();
  time.local.year = year;
  time.local.month = month;
  time.local.day = day;
  time.local.is_date = 1;
  return time;
}

platform::Date at(long long seconds) { return platform::Date::fromTimeIntervalSince1970(static_cast<double>(seconds)); }

class VdirEditTest : public ::testing::Test {
 protected:
  VdirEditTest() {
    context_.clock = &clock_;
    context_.zoneFor = [](const std::string& tzid) -> const icaltimezone* {
      return builtinZone(ianaNameOfTzid(tzid));
    };
    context_.now = at(static_cast<long long>(civilSecondsSince1970(2026, 11, 25, 12, 0, 0)));
  }

  VdirDocument parse(const std::string& text) {
    auto document = VdirDocument::parse(text);
    EXPECT_TRUE(document) << document.error().description();
    return document ? std::move(document).value() : VdirDocument();
  }

  // The starts of every occurrence an independent libical expansion finds in `text`.
  std::set<long long> occurrencesOf(const std::string& text) {
    testing::TemporaryDirectory root;
    testing::writeFile(root.path() / "cal" / "item.ics", text);
    tool::testing::IndependentExpansion expansion(root.path().string());
    std::set<long long> starts;
    for (const auto& [identifier, start] : expansion.occurrences(0, 4102444800LL)) starts.insert(start);
    return starts;
  }

  // The content lines of `document`'s components of `uid` named `name`, one vector per component.
  static std::vector<std::vector<std::string>> linesOf(const VdirDocument& document, const std::string& name) {
    std::vector<std::vector<std::string>> result;
    for (const VdirComponent& component : document.calendar()->components()) {
      if (component.name() != name) continue;
      std::vector<std::string> lines;
      for (const VdirProperty* property : component.allProperties()) lines.push_back(property->line->text());
      result.push_back(lines);
    }
    return result;
  }

  VdirTime berlinTime(int year, int month, int day, int hour, int minute = 0) {
    VdirTime time;
    time.kind = VdirTime::Kind::zoned;
    time.tzid = "Europe/Berlin";
    time.zone = builtinZone("Europe/Berlin");
    time.local = icaltime_null_time();
    time.local.year = year;
    time.local.month = month;
    time.local.day = day;
    time.local.hour = hour;
    time.local.minute = minute;
    return time;
  }

  VdirClock clock_{"Europe/Berlin"};
  VdirEditContext context_;
};

std::set<long long> theSeries() {
  return {berlin(10, 19, 9), berlin(10, 26, 9), berlin(11, 2, 9), berlin(11, 9, 9), berlin(11, 23, 9),
          berlin(11, 30, 14), berlin(12, 7, 9), berlin(12, 14, 9), berlin(12, 21, 9)};
}

TEST_F(VdirEditTest, TheIndependentExpansionReadsTheSeriesAsWritten) {
  EXPECT_EQ(occurrencesOf(kSeries), theSeries());
}

TEST_F(VdirEditTest, ANewTitleForTheSeriesChangesItsSummaryAndStampsOnly) {
  VdirDocument document = parse(kSeries);
  auto changed = changeSeries(document, kUid, {.title = "Team, weekly"}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  EXPECT_TRUE(*changed);
  auto events = linesOf(document, "VEVENT");
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0], (std::vector<std::string>{
                           "UID:weekly@example.org", "DTSTAMP:20261125T120000Z",
                           "DTSTART;TZID=Europe/Berlin:20261019T090000", "DTEND;TZID=Europe/Berlin:20261019T100000",
                           "RRULE:FREQ=WEEKLY;COUNT=10", "EXDATE;TZID=Europe/Berlin:20261116T090000",
                           "SUMMARY:Team\\, weekly", "X-OTHER-APP;X-P=1:kept\\, as written", "SEQUENCE:2",
                           "LAST-MODIFIED:20261125T120000Z"}));
  const std::string written = document.text();
  EXPECT_THAT(written, HasSubstr("BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Team\r\nTRIGGER:-PT10M\r\nEND:VALARM"));
  EXPECT_EQ(written.substr(written.find("BEGIN:VEVENT\r\nUID:weekly@example.org\r\nRECURRENCE-ID")),
            kSeries.substr(kSeries.find("BEGIN:VEVENT\r\nUID:weekly@example.org\r\nRECURRENCE-ID")))
      << "the overrides are untouched";
  EXPECT_EQ(occurrencesOf(written), theSeries());

  // The same title again changes nothing.
  const std::string once = document.text();
  auto again = changeSeries(document, kUid, {.title = "Team, weekly"}, context_);
  ASSERT_TRUE(again);
  EXPECT_FALSE(*again);
  EXPECT_EQ(document.text(), once);
}

TEST_F(VdirEditTest, MovingTheSeriesMovesItsExclusionsAndOverridesAcrossTheChangeOfTime) {
  VdirDocument document = parse(kSeries);
  auto changed = changeSeries(document, kUid, {.start = berlinTime(2026, 10, 19, 10, 30)}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  ASSERT_TRUE(*changed);
  auto events = linesOf(document, "VEVENT");
  ASSERT_EQ(events.size(), 3u);
  EXPECT_THAT(events[0], ::testing::IsSupersetOf({"DTSTART;TZID=Europe/Berlin:20261019T103000",
                                                   "DTEND;TZID=Europe/Berlin:20261019T113000",
                                                   "EXDATE;TZID=Europe/Berlin:20261116T103000", "SEQUENCE:3"}));
  // The retitled occurrence moves with the series; the one moved to 14:00 stays there.
  EXPECT_THAT(events[1], ::testing::IsSupersetOf({"RECURRENCE-ID;TZID=Europe/Berlin:20261123T103000",
                                                   "DTSTART;TZID=Europe/Berlin:20261123T103000",
                                                   "DTEND;TZID=Europe/Berlin:20261123T113000", "SEQUENCE:3"}));
  EXPECT_THAT(events[2], ::testing::IsSupersetOf({"RECURRENCE-ID;TZID=Europe/Berlin:20261130T103000",
                                                   "DTSTART;TZID=Europe/Berlin:20261130T140000", "SEQUENCE:3"}));
  std::set<long long> expected;
  for (long long start : theSeries()) expected.insert(start == berlin(11, 30, 14) ? start : start + 5400);
  EXPECT_EQ(occurrencesOf(document.text()), expected);
}

// The series, ending with an UNTIL at its last occurrence (21 December, 09:00 in Berlin) rather
// than a COUNT.
std::string seriesUntilItsLast() {
  std::string text = kSeries;
  const std::string count = "RRULE:FREQ=WEEKLY;COUNT=10";
  return text.replace(text.find(count), count.size(), "RRULE:FREQ=WEEKLY;UNTIL=20261221T080000Z");
}

TEST_F(VdirEditTest, AMovedSeriesKeepsItsLastOccurrenceBeforeItsUntil) {
  ASSERT_EQ(occurrencesOf(seriesUntilItsLast()), theSeries());
  for (const int minutes : {90, -60}) {
    VdirDocument document = parse(seriesUntilItsLast());
    const VdirTime start = berlinTime(2026, 10, 19, 9 + minutes / 60, minutes % 60);
    auto changed = changeSeries(document, kUid, {.start = start}, context_);
    ASSERT_TRUE(changed) << changed.error().description();
    const std::string until = minutes > 0 ? "UNTIL=20261221T093000Z" : "UNTIL=20261221T070000Z";
    EXPECT_THAT(linesOf(document, "VEVENT")[0], ::testing::Contains("RRULE:FREQ=WEEKLY;" + until));
    std::set<long long> expected;
    for (long long at : theSeries()) expected.insert(at == berlin(11, 30, 14) ? at : at + minutes * 60);
    EXPECT_EQ(occurrencesOf(document.text()), expected) << minutes;
  }
}

TEST_F(VdirEditTest, ASeriesComesToLastAllDayWithItsExclusionsOverridesAndUntilAndBack) {
  VdirDocument document = parse(seriesUntilItsLast());
  auto changed = changeSeries(document, kUid, {.start = dateOf(2026, 10, 19)}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  ASSERT_TRUE(*changed);
  auto events = linesOf(document, "VEVENT");
  ASSERT_EQ(events.size(), 3u);
  EXPECT_THAT(events[0], ::testing::IsSupersetOf({"DTSTART;VALUE=DATE:20261019", "DTEND;VALUE=DATE:20261020",
                                                   "RRULE:FREQ=WEEKLY;UNTIL=20261221",
                                                   "EXDATE;VALUE=DATE:20261116", "SEQUENCE:3"}));
  // The retitled occurrence lasts its day; the one moved to 14:00 keeps its time.
  EXPECT_THAT(events[1], ::testing::IsSupersetOf({"RECURRENCE-ID;VALUE=DATE:20261123", "DTSTART;VALUE=DATE:20261123",
                                                   "DTEND;VALUE=DATE:20261124", "SEQUENCE:3"}));
  EXPECT_THAT(events[2], ::testing::IsSupersetOf({"RECURRENCE-ID;VALUE=DATE:20261130",
                                                   "DTSTART;TZID=Europe/Berlin:20261130T140000"}));
  const std::set<long long> days = occurrencesOf(document.text());
  EXPECT_EQ(days.size(), theSeries().size());
  EXPECT_TRUE(days.count(berlin(11, 30, 14)));
  // The retitled occurrence comes to last two days.
  ASSERT_TRUE(changeOccurrence(document, kUid, clock_.instant(dateOf(2026, 11, 23)), {.end = dateOf(2026, 11, 25)},
                               context_));

  // Back at 09:00 to 10:00: the retitled occurrence keeps its two days, from 09:00.
  changed = changeSeries(document, kUid,
                         {.start = berlinTime(2026, 10, 19, 9), .end = berlinTime(2026, 10, 19, 10)}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  events = linesOf(document, "VEVENT");
  EXPECT_THAT(events[0], ::testing::IsSupersetOf({"DTSTART;TZID=Europe/Berlin:20261019T090000",
                                                   "DTEND;TZID=Europe/Berlin:20261019T100000",
                                                   "RRULE:FREQ=WEEKLY;UNTIL=20261221T080000Z",
                                                   "EXDATE;TZID=Europe/Berlin:20261116T090000"}));
  EXPECT_THAT(events[1], ::testing::IsSupersetOf({"RECURRENCE-ID;TZID=Europe/Berlin:20261123T090000",
                                                   "DTSTART;TZID=Europe/Berlin:20261123T090000",
                                                   "DTEND;TZID=Europe/Berlin:20261125T090000"}));
  EXPECT_THAT(events[2], ::testing::IsSupersetOf({"RECURRENCE-ID;TZID=Europe/Berlin:20261130T090000",
                                                   "DTSTART;TZID=Europe/Berlin:20261130T140000"}));
  EXPECT_EQ(occurrencesOf(document.text()), theSeries());

  // A series ended the second before an occurrence (08:59:59) ends, all day, the day before it.
  VdirDocument ended = parse(kSeries);
  ASSERT_TRUE(endSeriesBefore(ended, kUid, at(berlin(11, 16, 9)), context_));
  ASSERT_TRUE(changeSeries(ended, kUid, {.start = dateOf(2026, 10, 19)}, context_));
  EXPECT_THAT(linesOf(ended, "VEVENT")[0], ::testing::Contains("RRULE:FREQ=WEEKLY;UNTIL=20261115"));
  EXPECT_EQ(occurrencesOf(ended.text()).size(), 4u);
}

TEST_F(VdirEditTest, AnOverrideThatLastedAsLongAsItsSeriesTakesTheSeriesNewLength) {
  VdirDocument document = parse(seriesUntilItsLast());
  ASSERT_TRUE(changeSeries(document, kUid, {.start = dateOf(2026, 10, 19)}, context_));
  // Without an end given, the series lasts from midnight to midnight; the retitled occurrence too.
  auto changed = changeSeries(document, kUid, {.start = berlinTime(2026, 10, 19, 0)}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  auto events = linesOf(document, "VEVENT");
  EXPECT_THAT(events[0], ::testing::IsSupersetOf({"DTSTART;TZID=Europe/Berlin:20261019T000000",
                                                   "DTEND;TZID=Europe/Berlin:20261020T000000"}));
  EXPECT_THAT(events[1], ::testing::IsSupersetOf({"DTSTART;TZID=Europe/Berlin:20261123T000000",
                                                   "DTEND;TZID=Europe/Berlin:20261124T000000"}));
  // At 09:00 to 10:00, the retitled occurrence takes that hour.
  ASSERT_TRUE(changeSeries(document, kUid, {.start = dateOf(2026, 10, 19)}, context_));
  ASSERT_TRUE(changeSeries(document, kUid,
                           {.start = berlinTime(2026, 10, 19, 9), .end = berlinTime(2026, 10, 19, 10)}, context_));
  EXPECT_THAT(linesOf(document, "VEVENT")[1], ::testing::IsSupersetOf({"DTSTART;TZID=Europe/Berlin:20261123T090000",
                                                                        "DTEND;TZID=Europe/Berlin:20261123T100000"}));
}

TEST_F(VdirEditTest, ASeriesMadeAllDayEndsAtTheMidnightAtOrAfterItsEndAndWritesNoDuration) {
  VdirDocument document = parse(
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:late\r\nDTSTART;TZID=Europe/Berlin:20261019T220000\r\n"
      "DURATION:PT2H\r\nRRULE:FREQ=DAILY;COUNT=3\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  auto changed = changeSeries(document, "late", {.start = dateOf(2026, 10, 19)}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  auto lines = linesOf(document, "VEVENT")[0];
  EXPECT_THAT(lines, ::testing::IsSupersetOf({"DTSTART;VALUE=DATE:20261019", "DTEND;VALUE=DATE:20261020",
                                              "RRULE:FREQ=DAILY;COUNT=3"}));
  EXPECT_THAT(lines, ::testing::Not(::testing::Contains(::testing::StartsWith("DURATION"))));
  // Until 00:30: it touches the next day too.
  VdirDocument later = parse(
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:later\r\nDTSTART;TZID=Europe/Berlin:20261019T220000\r\n"
      "DTEND;TZID=Europe/Berlin:20261020T003000\r\nRRULE:FREQ=DAILY;COUNT=3\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  ASSERT_TRUE(changeSeries(later, "later", {.start = dateOf(2026, 10, 19)}, context_));
  EXPECT_THAT(linesOf(later, "VEVENT")[0], ::testing::Contains("DTEND;VALUE=DATE:20261021"));
}

// A series in New York read where the local zone is Berlin: their clocks change a week apart, yet
// each occurrence keeps its own day, and so does its exclusion.
TEST_F(VdirEditTest, ASeriesInAnotherZoneKeepsTheDaysOfItsOccurrencesWhenItComesToLastAllDay) {
  VdirDocument document = parse(
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:ny\r\nDTSTART;TZID=America/New_York:20261019T090000\r\n"
      "DTEND;TZID=America/New_York:20261019T100000\r\nRRULE:FREQ=WEEKLY;COUNT=4\r\n"
      "EXDATE;TZID=America/New_York:20261026T090000\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  auto changed = changeSeries(document, "ny", {.start = dateOf(2026, 10, 19)}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  EXPECT_THAT(linesOf(document, "VEVENT")[0],
              ::testing::IsSupersetOf({"DTSTART;VALUE=DATE:20261019", "EXDATE;VALUE=DATE:20261026"}));
}

TEST_F(VdirEditTest, ChangingOneOccurrenceWritesItsOverrideFromTheMaster) {
  VdirDocument document = parse(kSeries);
  auto changed = changeOccurrence(document, kUid, at(berlin(11, 9, 9)), {.title = "Team (moved room)",
                                                                         .location = std::optional<std::string>("B2")},
                                  context_);
  ASSERT_TRUE(changed) << changed.error().description();
  ASSERT_TRUE(*changed);
  auto events = linesOf(document, "VEVENT");
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[3], (std::vector<std::string>{
                           "UID:weekly@example.org", "DTSTAMP:20261125T120000Z",
                           "DTSTART;TZID=Europe/Berlin:20261109T090000", "DTEND;TZID=Europe/Berlin:20261109T100000",
                           "SUMMARY:Team (moved room)", "X-OTHER-APP;X-P=1:kept\\, as written", "SEQUENCE:2",
                           "RECURRENCE-ID;TZID=Europe/Berlin:20261109T090000", "LOCATION:B2",
                           "LAST-MODIFIED:20261125T120000Z"}));
  EXPECT_EQ(document.calendar()->components().back().components().size(), 1u) << "the alarm comes along";
  EXPECT_EQ(occurrencesOf(document.text()), theSeries());

  // A second change of that occurrence changes the same override.
  auto again = changeOccurrence(document, kUid, at(berlin(11, 9, 9)), {.start = berlinTime(2026, 11, 9, 8)},
                                context_);
  ASSERT_TRUE(again) << again.error().description();
  EXPECT_TRUE(*again);
  EXPECT_EQ(linesOf(document, "VEVENT").size(), 4u);
  std::set<long long> expected = theSeries();
  expected.erase(berlin(11, 9, 9));
  expected.insert(berlin(11, 9, 8));
  EXPECT_EQ(occurrencesOf(document.text()), expected);

  // Nothing to change: no override is made.
  VdirDocument untouched = parse(kSeries);
  auto nothing = changeOccurrence(untouched, kUid, at(berlin(11, 2, 9)), {.title = "Team"}, context_);
  ASSERT_TRUE(nothing);
  EXPECT_FALSE(*nothing);
  EXPECT_EQ(untouched.text(), kSeries);
}

// The series with, from the 2nd of November on, a THISANDFUTURE override: an hour later, 90
// minutes long, retitled.
const std::string kRangeSeries =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//Writer//EN\r\n" + kBerlin +
    "BEGIN:VEVENT\r\nUID:weekly@example.org\r\nDTSTAMP:20261001T000000Z\r\n"
    "DTSTART;TZID=Europe/Berlin:20261019T090000\r\nDTEND;TZID=Europe/Berlin:20261019T100000\r\n"
    "RRULE:FREQ=WEEKLY;COUNT=10\r\nSUMMARY:Team\r\nEND:VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:weekly@example.org\r\nDTSTAMP:20261001T000000Z\r\n"
    "RECURRENCE-ID;RANGE=THISANDFUTURE;TZID=Europe/Berlin:20261102T090000\r\n"
    "DTSTART;TZID=Europe/Berlin:20261102T100000\r\nDTEND;TZID=Europe/Berlin:20261102T113000\r\n"
    "SUMMARY:Team (later)\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";

TEST_F(VdirEditTest, ChangingAnOccurrenceUnderAThisAndFutureOverrideStartsFromThatOverride) {
  VdirDocument document = parse(kRangeSeries);
  auto changed = changeOccurrence(document, kUid, at(berlin(11, 16, 9)), {.location = "Room 2"}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  ASSERT_TRUE(*changed);
  auto events = linesOf(document, "VEVENT");
  ASSERT_EQ(events.size(), 3u);
  // Where, how long and what the occurrence was, with the location; an override of itself alone.
  EXPECT_THAT(events[2], ::testing::IsSupersetOf({"RECURRENCE-ID;TZID=Europe/Berlin:20261116T090000",
                                                   "DTSTART;TZID=Europe/Berlin:20261116T100000",
                                                   "DTEND;TZID=Europe/Berlin:20261116T113000",
                                                   "SUMMARY:Team (later)", "LOCATION:Room 2"}));
  // An occurrence before the override still starts from the master.
  auto before = changeOccurrence(document, kUid, at(berlin(10, 26, 9)), {.location = "Room 1"}, context_);
  ASSERT_TRUE(before) << before.error().description();
  events = linesOf(document, "VEVENT");
  ASSERT_EQ(events.size(), 4u);
  EXPECT_THAT(events[3], ::testing::IsSupersetOf({"RECURRENCE-ID;TZID=Europe/Berlin:20261026T090000",
                                                   "DTSTART;TZID=Europe/Berlin:20261026T090000",
                                                   "DTEND;TZID=Europe/Berlin:20261026T100000", "SUMMARY:Team"}));
}

TEST_F(VdirEditTest, MovingASeriesKeepsItsThisAndFutureOverrideOne) {
  VdirDocument document = parse(kRangeSeries);
  auto changed = changeSeries(document, kUid, {.start = berlinTime(2026, 10, 19, 8)}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  auto events = linesOf(document, "VEVENT");
  ASSERT_EQ(events.size(), 2u);
  // Moved with the series; its own start stays where it was put, so later occurrences stay at 10:00.
  EXPECT_THAT(events[1],
              ::testing::IsSupersetOf({"RECURRENCE-ID;TZID=Europe/Berlin;RANGE=THISANDFUTURE:20261102T080000",
                                       "DTSTART;TZID=Europe/Berlin:20261102T100000"}));
}

TEST_F(VdirEditTest, RemovingOneOccurrenceExcludesItInTheFormOfTheStartAndDropsItsOverride) {
  VdirDocument document = parse(kSeries);
  auto removed = removeOccurrence(document, kUid, at(berlin(11, 23, 9)), context_);
  ASSERT_TRUE(removed) << removed.error().description();
  ASSERT_TRUE(*removed);
  auto events = linesOf(document, "VEVENT");
  ASSERT_EQ(events.size(), 2u);
  EXPECT_THAT(events[0], ::testing::IsSupersetOf({"EXDATE;TZID=Europe/Berlin:20261116T090000",
                                                   "EXDATE;TZID=Europe/Berlin:20261123T090000", "SEQUENCE:3"}));
  std::set<long long> expected = theSeries();
  expected.erase(berlin(11, 23, 9));
  EXPECT_EQ(occurrencesOf(document.text()), expected);
  auto again = removeOccurrence(document, kUid, at(berlin(11, 23, 9)), context_);
  ASSERT_TRUE(again);
  EXPECT_FALSE(*again);

  // An all-day series is excluded by a DATE, a UTC one by a UTC time.
  VdirDocument allDay = parse(
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:d\r\nDTSTART;VALUE=DATE:20261201\r\nRRULE:FREQ=DAILY;COUNT=5\r\n"
      "END:VEVENT\r\nEND:VCALENDAR\r\n");
  ASSERT_TRUE(removeOccurrence(allDay, "d", clock_.instant(dateOf(2026, 12, 3)),
                               context_));
  EXPECT_THAT(linesOf(allDay, "VEVENT")[0], ::testing::Contains("EXDATE;VALUE=DATE:20261203"));
  VdirDocument utc = parse(
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:u\r\nDTSTART:20261201T080000Z\r\nRRULE:FREQ=DAILY;COUNT=5\r\n"
      "END:VEVENT\r\nEND:VCALENDAR\r\n");
  ASSERT_TRUE(removeOccurrence(utc, "u", at(static_cast<long long>(civilSecondsSince1970(2026, 12, 2, 8, 0, 0))),
                               context_));
  EXPECT_THAT(linesOf(utc, "VEVENT")[0], ::testing::Contains("EXDATE:20261202T080000Z"));
}

TEST_F(VdirEditTest, EndingTheSeriesWritesUntilInTheRequiredFormAndDropsWhatFollows) {
  VdirDocument document = parse(kSeries);
  auto ended = endSeriesBefore(document, kUid, at(berlin(11, 16, 9)), context_);
  ASSERT_TRUE(ended) << ended.error().description();
  ASSERT_TRUE(*ended);
  auto events = linesOf(document, "VEVENT");
  ASSERT_EQ(events.size(), 1u) << "the overrides after the end are gone";
  EXPECT_THAT(events[0], ::testing::Contains("RRULE:FREQ=WEEKLY;UNTIL=20261116T075959Z"));
  EXPECT_THAT(events[0], ::testing::Not(::testing::Contains(::testing::StartsWith("EXDATE"))));
  EXPECT_EQ(occurrencesOf(document.text()),
            (std::set<long long>{berlin(10, 19, 9), berlin(10, 26, 9), berlin(11, 2, 9), berlin(11, 9, 9)}));

  VdirDocument allDay = parse(
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:d\r\nDTSTART;VALUE=DATE:20261201\r\nRRULE:FREQ=DAILY;COUNT=5\r\n"
      "END:VEVENT\r\nEND:VCALENDAR\r\n");
  ASSERT_TRUE(endSeriesBefore(allDay, "d", clock_.instant(dateOf(2026, 12, 3)), context_));
  EXPECT_THAT(linesOf(allDay, "VEVENT")[0], ::testing::Contains("RRULE:FREQ=DAILY;UNTIL=20261202"));

  // Ending before the first occurrence would leave nothing: that is a removal of the series.
  VdirDocument first = parse(kSeries);
  auto refused = endSeriesBefore(first, kUid, at(berlin(10, 19, 9)), context_);
  ASSERT_FALSE(refused);
  EXPECT_THAT(refused.error().message(), HasSubstr("remove the whole series"));
  EXPECT_EQ(first.text(), kSeries);
}

TEST_F(VdirEditTest, AnEndBeforeTheStartOrAnUnknownZoneIsRefusedAndChangesNothing) {
  VdirDocument document = parse(kSeries);
  auto backwards = changeSeries(document, kUid, {.end = berlinTime(2026, 10, 19, 8)}, context_);
  ASSERT_FALSE(backwards);
  EXPECT_THAT(backwards.error().message(), HasSubstr("the end lies before the start"));
  EXPECT_EQ(document.text(), kSeries);

  std::string unknown = kSeries;
  for (std::size_t at; (at = unknown.find("TZID=Europe/Berlin:")) != std::string::npos;)
    unknown.replace(at, 19, "TZID=Nowhere/Atlantis:");
  VdirDocument lost = parse(unknown);
  auto moved = changeSeries(lost, kUid, {.start = berlinTime(2026, 10, 19, 10)}, context_);
  ASSERT_FALSE(moved);
  EXPECT_THAT(moved.error().message(), HasSubstr("unknown time zone \"Nowhere/Atlantis\""));
  EXPECT_EQ(lost.text(), unknown);

  auto missing = changeSeries(document, "nobody", {.title = "x"}, context_);
  ASSERT_FALSE(missing);
  EXPECT_THAT(missing.error().message(), HasSubstr("no item with UID \"nobody\""));
}

TEST_F(VdirEditTest, ATodoIsCompletedAndReopenedWithItsDueDateInTheFormGiven) {
  const std::string text =
      "BEGIN:VCALENDAR\nBEGIN:VTODO\nUID:t1\nSUMMARY:Milk\nDUE;VALUE=DATE:20261201\nX-KEEP:1\nEND:VTODO\n"
      "END:VCALENDAR\n";
  VdirDocument document = parse(text);
  auto done = setCompleted(document, "t1", true, context_);
  ASSERT_TRUE(done) << done.error().description();
  EXPECT_TRUE(*done);
  EXPECT_EQ(linesOf(document, "VTODO")[0],
            (std::vector<std::string>{"UID:t1", "SUMMARY:Milk", "DUE;VALUE=DATE:20261201", "X-KEEP:1",
                                      "STATUS:COMPLETED", "COMPLETED:20261125T120000Z", "PERCENT-COMPLETE:100",
                                      "DTSTAMP:20261125T120000Z", "LAST-MODIFIED:20261125T120000Z"}));
  EXPECT_THAT(document.text(), HasSubstr("STATUS:COMPLETED\n")) << "new lines take the file's line end";
  auto twice = setCompleted(document, "t1", true, context_);
  ASSERT_TRUE(twice);
  EXPECT_FALSE(*twice);

  ASSERT_TRUE(setCompleted(document, "t1", false, context_));
  EXPECT_EQ(linesOf(document, "VTODO")[0],
            (std::vector<std::string>{"UID:t1", "SUMMARY:Milk", "DUE;VALUE=DATE:20261201", "X-KEEP:1",
                                      "STATUS:NEEDS-ACTION", "DTSTAMP:20261125T120000Z",
                                      "LAST-MODIFIED:20261125T120000Z"}));

  VdirTime due = berlinTime(2026, 12, 3, 17);
  auto changed = changeSeries(document, "t1", {.due = due, .priority = 1}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  EXPECT_THAT(linesOf(document, "VTODO")[0],
              ::testing::IsSupersetOf({"DUE;TZID=Europe/Berlin:20261203T170000", "PRIORITY:1", "SEQUENCE:1"}));
  auto badPriority = changeSeries(document, "t1", {.priority = 12}, context_);
  ASSERT_FALSE(badPriority);
  EXPECT_THAT(badPriority.error().message(), HasSubstr("0 (none) to 9"));
}

TEST_F(VdirEditTest, RemovingAnItemRemovesEachOfItsComponentsAndOnlyThose) {
  VdirDocument document = parse(kSeries);
  EXPECT_EQ(removeItem(document, "other"), 0u);
  EXPECT_EQ(removeItem(document, kUid), 3u);
  EXPECT_FALSE(holdsItems(document));
  EXPECT_THAT(document.text(), HasSubstr("BEGIN:VTIMEZONE"));
  EXPECT_TRUE(holdsItems(parse(kSeries)));
}

TEST_F(VdirEditTest, TimesAreReadAndWrittenInTheirOwnForms) {
  VdirContentLine zoned("DTSTART", {{"TZID", {"Europe/Berlin"}}}, "20261019T090000");
  auto time = timeOfValue(zoned, zoned.value(), context_);
  ASSERT_TRUE(time);
  EXPECT_EQ(time->kind, VdirTime::Kind::zoned);
  EXPECT_EQ(time->zone, builtinZone("Europe/Berlin"));
  EXPECT_EQ(timeLine("RECURRENCE-ID", *time).text(), "RECURRENCE-ID;TZID=Europe/Berlin:20261019T090000");
  VdirContentLine list("EXDATE", {}, "20261019T090000Z,20261020T090000Z");
  EXPECT_EQ(valuesOf(list), (std::vector<std::string>{"20261019T090000Z", "20261020T090000Z"}));
  auto utc = timeOfValue(list, "20261020T090000Z", context_);
  ASSERT_TRUE(utc);
  EXPECT_EQ(utc->kind, VdirTime::Kind::utc);
  EXPECT_EQ(timeValue(*utc), "20261020T090000Z");
  auto date = timeOfValue(VdirContentLine("DUE", {{"VALUE", {"DATE"}}}, "20261201"), "20261201", context_);
  ASSERT_TRUE(date);
  EXPECT_TRUE(date->isDate());
  EXPECT_EQ(timeLine("DUE", *date).text(), "DUE;VALUE=DATE:20261201");
  for (const char* bad : {"", "2026", "20261301", "20261019T250000", "20261019X090000", "2026101aT090000"}) {
    EXPECT_FALSE(timeOfValue(list, bad, context_)) << bad;
  }
  EXPECT_EQ(timeValue(timeLike(at(berlin(12, 24, 18)), *time, *context_.clock)), "20261224T180000");
}

// 30 February is the 2nd of March to the editor as to the reader (and a 60th second the next
// minute's first): its walks start from there.
TEST_F(VdirEditTest, ASeriesFromADayItsMonthDoesNotHaveIsEditedFromTheDayItRunsInto) {
  VdirContentLine start("DTSTART", {{"TZID", {"Europe/Berlin"}}}, "20260230T090000");
  auto time = timeOfValue(start, start.value(), context_);
  ASSERT_TRUE(time);
  EXPECT_EQ(timeValue(*time), "20260302T090000");
  auto date = timeOfValue(VdirContentLine("EXDATE", {{"VALUE", {"DATE"}}}, "20250229"), "20250229", context_);
  ASSERT_TRUE(date);
  EXPECT_EQ(timeValue(*date), "20250301");
  auto leap = timeOfValue(start, "20261231T235960", context_);
  ASSERT_TRUE(leap);
  EXPECT_EQ(timeValue(*leap), "20270101T000000") << "a 60th second is the next minute's first";

  // Monthly on the 2nd from March, four times, as the store reads it.
  const std::string series =
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//Writer//EN\r\n" + kBerlin +
      "BEGIN:VEVENT\r\nUID:m@example.org\r\nDTSTAMP:20260101T000000Z\r\n"
      "DTSTART;TZID=Europe/Berlin:20260230T090000\r\nDTEND;TZID=Europe/Berlin:20260230T100000\r\n"
      "RRULE:FREQ=MONTHLY;COUNT=4\r\nSUMMARY:Monthly\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
  const auto march2 = static_cast<long long>(civilSecondsSince1970(2026, 3, 2, 8, 0, 0));
  const auto april2 = static_cast<long long>(civilSecondsSince1970(2026, 4, 2, 7, 0, 0));
  const auto may2 = static_cast<long long>(civilSecondsSince1970(2026, 5, 2, 7, 0, 0));
  const auto june2 = static_cast<long long>(civilSecondsSince1970(2026, 6, 2, 7, 0, 0));

  VdirDocument split = parse(series);
  auto future = splitSeries(split, "m@example.org", at(april2), "m2@example.org", {.title = "Later"}, context_);
  ASSERT_TRUE(future) << future.error().description();
  const VdirComponent* master = masterOf(*future, "m2@example.org");
  ASSERT_TRUE(master);
  EXPECT_EQ(master->property("RRULE")->value(), "FREQ=MONTHLY;COUNT=3") << "one occurrence came before";
  EXPECT_EQ(master->property("DTSTART")->value(), "20260402T090000");
  EXPECT_EQ(occurrencesOf(future->text()), (std::set<long long>{april2, may2, june2}));
  EXPECT_THAT(linesOf(split, "VEVENT")[0], ::testing::Contains("RRULE:FREQ=MONTHLY;UNTIL=20260402T065959Z"));

  VdirDocument removed = parse(series);
  auto done = removeOccurrence(removed, "m@example.org", at(march2), context_);
  ASSERT_TRUE(done) << done.error().description();
  EXPECT_TRUE(*done);
  EXPECT_THAT(linesOf(removed, "VEVENT")[0], ::testing::Contains("EXDATE;TZID=Europe/Berlin:20260302T090000"));
}

TEST(VdirDurationTest, DurationsAreWrittenInDaysOrInHoursMinutesAndSeconds) {
  EXPECT_EQ(durationValue(0), "PT0S");
  EXPECT_EQ(durationValue(-5400), "-PT1H30M");
  EXPECT_EQ(durationValue(90061), "PT25H1M1S");
  EXPECT_EQ(durationValue(-172800), "-P2D");
  EXPECT_EQ(durationValue(59), "PT59S");
  EXPECT_EQ(durationValue(std::numeric_limits<std::int64_t>::min()), "-PT2562047788015215H30M8S");
}

TEST_F(VdirEditTest, ChangingThisAndLaterOccurrencesSplitsTheSeries) {
  VdirDocument document = parse(kSeries);
  auto future = splitSeries(document, kUid, at(berlin(11, 9, 9)), "future@example.org", {.title = "Team (new)"},
                            context_);
  ASSERT_TRUE(future) << future.error().description();

  // The old series ends before the occurrence and keeps nothing after it.
  auto old = linesOf(document, "VEVENT");
  ASSERT_EQ(old.size(), 1u);
  EXPECT_THAT(old[0], ::testing::Contains("RRULE:FREQ=WEEKLY;UNTIL=20261109T075959Z"));
  EXPECT_EQ(occurrencesOf(document.text()),
            (std::set<long long>{berlin(10, 19, 9), berlin(10, 26, 9), berlin(11, 2, 9)}));

  // The new one continues with what is left of the count, the later exclusion and both overrides.
  const std::string written = future->text();
  EXPECT_THAT(written, HasSubstr("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp//Vesp 0.1//EN\r\n" + kBerlin));
  auto events = linesOf(*future, "VEVENT");
  ASSERT_EQ(events.size(), 3u);
  EXPECT_THAT(events[0], ::testing::IsSupersetOf({"UID:future@example.org",
                                                   "DTSTART;TZID=Europe/Berlin:20261109T090000",
                                                   "DTEND;TZID=Europe/Berlin:20261109T100000",
                                                   "RRULE:FREQ=WEEKLY;COUNT=7",
                                                   "EXDATE;TZID=Europe/Berlin:20261116T090000", "SUMMARY:Team (new)",
                                                   "X-OTHER-APP;X-P=1:kept\\, as written",
                                                   "CREATED:20261125T120000Z"}));
  EXPECT_THAT(events[1], ::testing::IsSupersetOf({"UID:future@example.org",
                                                   "RECURRENCE-ID;TZID=Europe/Berlin:20261123T090000",
                                                   "SUMMARY:Team (retro)"}));
  EXPECT_THAT(events[2], ::testing::Contains("DTSTART;TZID=Europe/Berlin:20261130T140000"));
  std::set<long long> both = occurrencesOf(document.text());
  for (long long start : occurrencesOf(written)) both.insert(start);
  EXPECT_EQ(both, theSeries()) << "together the two series keep every occurrence";

  // Splitting at the first occurrence is a change of the whole series.
  VdirDocument whole = parse(kSeries);
  auto refused = splitSeries(whole, kUid, at(berlin(10, 19, 9)), "x", {.title = "y"}, context_);
  ASSERT_FALSE(refused);
  EXPECT_EQ(whole.text(), kSeries);
}

TEST_F(VdirEditTest, ARuleGivenWithASplitIsTheRuleOfTheSeriesThatContinues) {
  VdirDocument document = parse(kSeries);
  // Every other week from the 9th of November, three times: the 23rd keeps its override, the 30th's goes.
  auto future = splitSeries(document, kUid, at(berlin(11, 9, 9)), "future@example.org",
                            {.rule = "FREQ=WEEKLY;INTERVAL=2;COUNT=3"}, context_);
  ASSERT_TRUE(future) << future.error().description();
  EXPECT_EQ(occurrencesOf(document.text()),
            (std::set<long long>{berlin(10, 19, 9), berlin(10, 26, 9), berlin(11, 2, 9)}));
  const VdirComponent* master = masterOf(*future, "future@example.org");
  ASSERT_TRUE(master);
  EXPECT_EQ(master->property("RRULE")->value(), "FREQ=WEEKLY;INTERVAL=2;COUNT=3");
  EXPECT_EQ(linesOf(*future, "VEVENT").size(), 2u);
  EXPECT_EQ(occurrencesOf(future->text()), (std::set<long long>{berlin(11, 9, 9), berlin(11, 23, 9), berlin(12, 7, 9)}));

  VdirDocument unchanged = parse(kSeries);
  auto refused = splitSeries(unchanged, kUid, at(berlin(11, 9, 9)), "x@example.org", {.rule = "FREQ=NEVER"}, context_);
  ASSERT_FALSE(refused);
  EXPECT_THAT(refused.error().message(), HasSubstr("the repeat rule cannot be read"));
  EXPECT_EQ(unchanged.text(), kSeries);
}

TEST_F(VdirEditTest, ANewEventIsAFileWithItsZoneStampsAndFoldedLines) {
  const std::string title = "A planning meeting with a title long enough to be folded, \u00e9t\u00e9 " +
                            std::string(40, 'x');
  auto item = newItem("VEVENT", "new-1", {.title = title, .start = berlinTime(2026, 12, 1, 9),
                                          .end = berlinTime(2026, 12, 1, 10, 30)}, context_);
  ASSERT_TRUE(item) << item.error().description();
  auto zones = [](const std::string& tzid) -> std::optional<std::string> {
    if (tzid == "Europe/Berlin") return kBerlin;
    return std::nullopt;
  };
  auto document = newItemDocument(*item, zones);
  ASSERT_TRUE(document) << document.error().description();
  const std::string text = document->text();
  EXPECT_EQ(linesOf(*document, "VEVENT")[0],
            (std::vector<std::string>{"UID:new-1", "DTSTAMP:20261125T120000Z", "CREATED:20261125T120000Z",
                                      "LAST-MODIFIED:20261125T120000Z", "SEQUENCE:0",
                                      "DTSTART;TZID=Europe/Berlin:20261201T090000", "SUMMARY:" + escapedText(title),
                                      "DTEND;TZID=Europe/Berlin:20261201T103000"}));
  EXPECT_THAT(text, HasSubstr(kBerlin));
  for (std::size_t at = 0, end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2) {
    EXPECT_LE(end - at, 75u);
  }
  EXPECT_EQ(occurrencesOf(text), (std::set<long long>{berlin(12, 1, 9)}));
  std::unique_ptr<icalcomponent, decltype(&icalcomponent_free)> parsed(icalparser_parse_string(text.c_str()),
                                                                     icalcomponent_free);
  ASSERT_TRUE(parsed);
  icalcomponent* event = icalcomponent_get_first_component(parsed.get(), ICAL_VEVENT_COMPONENT);
  ASSERT_TRUE(event);
  EXPECT_EQ(icalcomponent_get_summary(event), title);

  auto noZone = newItemDocument(*item, {});
  ASSERT_FALSE(noZone);
  EXPECT_THAT(noZone.error().message(), HasSubstr("unknown time zone \"Europe/Berlin\""));
  auto untitled = newItem("VEVENT", "new-2", {.start = berlinTime(2026, 12, 1, 9)}, context_);
  ASSERT_FALSE(untitled);
  EXPECT_THAT(untitled.error().message(), HasSubstr("needs a title"));
  auto backwards = newItem("VEVENT", "new-3", {.title = "x", .start = berlinTime(2026, 12, 1, 9),
                                               .end = berlinTime(2026, 12, 1, 8)}, context_);
  ASSERT_FALSE(backwards);
}

TEST_F(VdirEditTest, ANewTodoIsOpenWithItsDueDateAsGiven) {
  auto item = newItem("VTODO", "todo-1", {.title = "Milk", .notes = std::optional<std::string>("two\nlitres"),
                                          .due = dateOf(2026, 12, 2), .priority = 5}, context_);
  ASSERT_TRUE(item) << item.error().description();
  auto document = newItemDocument(*item, {});
  ASSERT_TRUE(document) << document.error().description();
  EXPECT_EQ(linesOf(*document, "VTODO")[0],
            (std::vector<std::string>{"UID:todo-1", "DTSTAMP:20261125T120000Z", "CREATED:20261125T120000Z",
                                      "LAST-MODIFIED:20261125T120000Z", "SEQUENCE:0", "SUMMARY:Milk",
                                      "DESCRIPTION:two\\nlitres", "PRIORITY:5", "DUE;VALUE=DATE:20261202",
                                      "STATUS:NEEDS-ACTION"}));
}

TEST_F(VdirEditTest, ANewTitleChangesOnlyTheSummaryAndTheStampsOfEveryFileOfTheSuite) {
  std::size_t edited = 0;
  for (const auto& file : testing::everyCalendarFile()) {
    const std::string bytes = testing::readFile(file);
    auto parsed = VdirDocument::parse(bytes);
    if (!parsed || !parsed->calendar()) continue;
    VdirDocument document = std::move(parsed).value();
    std::vector<std::string> uids;
    for (const VdirComponent& component : document.calendar()->components()) {
      const VdirContentLine* uid = component.property("UID");
      if ((component.name() == "VEVENT" || component.name() == "VTODO") && uid && !component.property("RECURRENCE-ID"))
        uids.push_back(unescapedText(uid->value()));
    }
    if (uids.empty()) continue;
    const VdirDocument before = document;
    for (const std::string& uid : uids) {
      auto changed = changeSeries(document, uid, {.title = "Renamed"}, context_);
      ASSERT_TRUE(changed) << file << ": " << changed.error().description();
    }
    ++edited;
    // Component by component, line by line: only SUMMARY, DTSTAMP and LAST-MODIFIED of the
    // retitled masters differ, and no time moved, so SEQUENCE stays.
    const auto& old = before.calendar()->components();
    const auto& now = document.calendar()->components();
    ASSERT_EQ(old.size(), now.size()) << file;
    for (std::size_t at = 0; at < old.size(); ++at) {
      auto lines = [](const VdirComponent& component) {
        std::vector<std::string> kept;
        for (const VdirProperty* property : component.allProperties()) {
          const auto& line = property->line;
          if (line && (line->name() == "SUMMARY" || line->name() == "DTSTAMP" || line->name() == "LAST-MODIFIED"))
            continue;
          kept.push_back(line ? line->text() : property->original);
        }
        return kept;
      };
      EXPECT_EQ(lines(now[at]), lines(old[at])) << file << ", component " << at;
      EXPECT_EQ(now[at].components().size(), old[at].components().size()) << file;
    }
    EXPECT_EQ(VdirDocument::parse(document.text())->text(), document.text()) << file;
  }
  EXPECT_GE(edited, 180u);
}

TEST_F(VdirEditTest, OnlyARaisedSequenceIsCarriedToTheOverrides) {
  std::string text = kSeries;
  text.replace(text.find("SEQUENCE:2"), 10, "SEQUENCE:5");  // the master's
  VdirDocument document = parse(text);
  ASSERT_TRUE(changeSeries(document, kUid, {.title = "Renamed"}, context_));
  auto events = linesOf(document, "VEVENT");
  EXPECT_THAT(events[0], ::testing::Contains("SEQUENCE:5"));
  EXPECT_THAT(events[1], ::testing::Contains("SEQUENCE:2"));
  ASSERT_TRUE(changeSeries(document, kUid, {.start = berlinTime(2026, 10, 19, 8)}, context_));
  events = linesOf(document, "VEVENT");
  EXPECT_THAT(events[0], ::testing::Contains("SEQUENCE:6"));
  EXPECT_THAT(events[1], ::testing::Contains("SEQUENCE:6"));
  EXPECT_THAT(events[2], ::testing::Contains("SEQUENCE:6"));
}

TEST_F(VdirEditTest, ARepeatRuleTakesTheFormOfTheStartAndAnUntilDayIsReadThroughItsLastSecond) {
  // A zoned start: a day as UNTIL becomes the UTC instant of that day's last second in Berlin.
  auto item = newItem("VEVENT", "rule-1", {.title = "Yoga", .start = berlinTime(2026, 12, 1, 18),
                                           .end = berlinTime(2026, 12, 1, 19),
                                           .rule = "FREQ=WEEKLY;BYDAY=TU,TH;UNTIL=20261210"}, context_);
  ASSERT_TRUE(item) << item.error().description();
  ASSERT_TRUE(item->property("RRULE"));
  EXPECT_EQ(item->property("RRULE")->value(), "FREQ=WEEKLY;BYDAY=TU,TH;UNTIL=20261210T225959Z");
  auto zones = [](const std::string&) -> std::optional<std::string> { return kBerlin; };
  auto document = newItemDocument(*item, zones);
  ASSERT_TRUE(document);
  EXPECT_EQ(occurrencesOf(document->text()),
            (std::set<long long>{berlin(12, 1, 18), berlin(12, 3, 18), berlin(12, 8, 18), berlin(12, 10, 18)}));

  // An all-day start keeps a day; a time given for it is cut to its day.
  auto allDay = newItem("VEVENT", "rule-2", {.title = "Holiday", .start = dateOf(2026, 12, 1),
                                             .rule = "FREQ=DAILY;UNTIL=20261203T120000Z"}, context_);
  ASSERT_TRUE(allDay) << allDay.error().description();
  EXPECT_EQ(allDay->property("RRULE")->value(), "FREQ=DAILY;UNTIL=20261203");

  // A floating start keeps a floating UNTIL.
  VdirTime floating = berlinTime(2026, 12, 1, 7);
  floating.kind = VdirTime::Kind::floating;
  floating.zone = nullptr;
  floating.tzid.clear();
  auto local = newItem("VEVENT", "rule-3", {.title = "Run", .start = floating, .rule = "FREQ=DAILY;UNTIL=20261205"},
                       context_);
  ASSERT_TRUE(local) << local.error().description();
  EXPECT_EQ(local->property("RRULE")->value(), "FREQ=DAILY;UNTIL=20261205T235959");

  for (const char* bad : {"FREQ=SOMETIMES", "FREQ=DAILY;COUNT=3;UNTIL=20261231", "FREQ=HOURLY;BYMONTH=2;BYMONTHDAY=30",
                          "FREQ=DAILY\r\nX-INJECTED:1"}) {
    auto refused = newItem("VEVENT", "rule-4", {.title = "x", .start = berlinTime(2026, 12, 1, 9), .rule = bad},
                           context_);
    EXPECT_FALSE(refused) << bad;
  }
}

// UNTIL names an instant: 08:00 UTC is 09:00 in Berlin, so the moved occurrence of the 30th is
// the last one and keeps its override, and one second earlier it is gone.
TEST_F(VdirEditTest, AnOverrideOnTheOccurrenceAtUntilStaysWhenTheRuleChanges) {
  VdirDocument document = parse(kSeries);
  auto changed = changeSeries(document, kUid, {.rule = "FREQ=WEEKLY;UNTIL=20261130T080000Z"}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  EXPECT_EQ(linesOf(document, "VEVENT").size(), 3u);
  EXPECT_EQ(occurrencesOf(document.text()),
            (std::set<long long>{berlin(10, 19, 9), berlin(10, 26, 9), berlin(11, 2, 9), berlin(11, 9, 9),
                                 berlin(11, 23, 9), berlin(11, 30, 14)}));
  auto earlier = changeSeries(document, kUid, {.rule = "FREQ=WEEKLY;UNTIL=20261130T075959Z"}, context_);
  ASSERT_TRUE(earlier) << earlier.error().description();
  EXPECT_EQ(linesOf(document, "VEVENT").size(), 2u);
  EXPECT_EQ(occurrencesOf(document.text()), (std::set<long long>{berlin(10, 19, 9), berlin(10, 26, 9), berlin(11, 2, 9),
                                                                  berlin(11, 9, 9), berlin(11, 23, 9)}));
}

TEST_F(VdirEditTest, ARuleChangesTheWholeSeriesAndNeverOneOccurrence) {
  VdirDocument document = parse(kSeries);
  // Seven weeks: both overrides still fall on occurrences and stay.
  auto shorter = changeSeries(document, kUid, {.rule = "FREQ=WEEKLY;COUNT=7"}, context_);
  ASSERT_TRUE(shorter) << shorter.error().description();
  EXPECT_EQ(linesOf(document, "VEVENT").size(), 3u);
  EXPECT_EQ(occurrencesOf(document.text()), (std::set<long long>{berlin(10, 19, 9), berlin(10, 26, 9), berlin(11, 2, 9),
                                                                  berlin(11, 9, 9), berlin(11, 23, 9), berlin(11, 30, 14)}));
  // Three weeks: the overrides of the 23rd and the 30th are left without an occurrence and go.
  auto changed = changeSeries(document, kUid, {.rule = "FREQ=WEEKLY;COUNT=3"}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  EXPECT_TRUE(*changed);
  const VdirComponent* master = masterOf(document, kUid);
  ASSERT_TRUE(master);
  EXPECT_EQ(master->properties("RRULE").size(), 1u);
  EXPECT_EQ(master->property("RRULE")->value(), "FREQ=WEEKLY;COUNT=3");
  EXPECT_EQ(master->property("SEQUENCE")->value(), "4");  // the occurrences changed, twice
  EXPECT_EQ(linesOf(document, "VEVENT").size(), 1u);
  EXPECT_EQ(occurrencesOf(document.text()), (std::set<long long>{berlin(10, 19, 9), berlin(10, 26, 9), berlin(11, 2, 9)}));
  auto same = changeSeries(document, kUid, {.rule = "FREQ=WEEKLY;COUNT=3"}, context_);
  ASSERT_TRUE(same);
  EXPECT_FALSE(*same);

  const std::string before = document.text();
  auto one = changeOccurrence(document, kUid, at(berlin(10, 26, 9)), {.rule = "FREQ=DAILY"}, context_);
  ASSERT_FALSE(one);
  EXPECT_THAT(one.error().message(), HasSubstr("belongs to the whole series"));
  EXPECT_EQ(document.text(), before);
}

TEST_F(VdirEditTest, AlarmsGivenReplaceTheItemsAlarmsAndTheSameAlarmsChangeNothing) {
  VdirDocument document = parse(kSeries);
  auto changed = changeSeries(document, kUid, {.alarms = std::vector<std::string>{"-PT15M", "-P1D"}}, context_);
  ASSERT_TRUE(changed) << changed.error().description();
  EXPECT_TRUE(*changed);
  const std::string text = document.text();
  EXPECT_THAT(text, ::testing::Not(HasSubstr("TRIGGER:-PT10M")));
  EXPECT_THAT(text, HasSubstr("BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Team\r\nTRIGGER:-PT15M\r\nEND:VALARM\r\n"
                              "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Team\r\nTRIGGER:-P1D\r\nEND:VALARM\r\n"
                              "END:VEVENT"));
  EXPECT_THAT(text, HasSubstr("X-OTHER-APP;X-P=1:kept\\, as written"));
  EXPECT_EQ(occurrencesOf(text), theSeries());
  auto again = changeSeries(document, kUid, {.alarms = std::vector<std::string>{"-PT15M", "-P1D"}}, context_);
  ASSERT_TRUE(again);
  EXPECT_FALSE(*again);
  EXPECT_EQ(document.text(), text);

  auto none = changeSeries(document, kUid, {.alarms = std::vector<std::string>{}}, context_);
  ASSERT_TRUE(none);
  EXPECT_TRUE(*none);
  EXPECT_THAT(document.text(), ::testing::Not(HasSubstr("VALARM")));
  auto bad = changeSeries(document, kUid, {.alarms = std::vector<std::string>{"soon"}}, context_);
  EXPECT_FALSE(bad);
}

}  // namespace
}  // namespace vesp::vdir
