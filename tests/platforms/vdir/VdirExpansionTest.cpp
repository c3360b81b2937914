// Occurrences of series from golden files (tests/data/vdir/series), local zone Europe/Berlin.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platforms/vdir/VdirExpansion.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using platform::Date;
using testing::testData;
using testing::utc;
using ::testing::ElementsAre;

struct Seen {
  Date start, end, occurrence;
  bool detached;
  std::string title;
};

class VdirExpansionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_ = VdirPlatform::make(testing::platformOptions(testData("series"), access_.path() / "access.json"));
  }
  std::vector<Seen> occurrences(const std::string& file, Date start, Date end) {
    std::vector<Seen> seen;
    for (const auto& event : platform_->store()->events(start, end, std::nullopt))
      if (event->eventIdentifier() == "cal/" + file)
        seen.push_back({*event->startDate(), *event->endDate(), *event->occurrenceDate(), event->isDetached(),
                        *event->title()});
    return seen;
  }
  std::vector<Date> starts(const std::string& file, Date start, Date end) {
    std::vector<Date> result;
    for (const auto& seen : occurrences(file, start, end)) result.push_back(seen.start);
    return result;
  }

  testing::TemporaryDirectory access_;
  std::shared_ptr<VdirPlatform> platform_;
};

TEST_F(VdirExpansionTest, ExdateRemovesAnOccurrence) {
  EXPECT_THAT(starts("exdate.ics", utc(2026, 3, 1), utc(2026, 4, 1)),
              ElementsAre(utc(2026, 3, 3, 8), utc(2026, 3, 10, 8), utc(2026, 3, 24, 8), utc(2026, 3, 31, 7)));
}

TEST_F(VdirExpansionTest, RdateAddsOccurrences) {
  EXPECT_THAT(starts("rdate.ics", utc(2026, 3, 1), utc(2026, 5, 1)),
              ElementsAre(utc(2026, 3, 2, 9), utc(2026, 3, 20, 9), utc(2026, 4, 1, 8)));
}

TEST_F(VdirExpansionTest, CountEndsTheSeries) {
  EXPECT_EQ(starts("count.ics", utc(2026, 1, 1), utc(2027, 1, 1)).size(), 5u);
  EXPECT_THAT(starts("count.ics", utc(2026, 3, 4), utc(2026, 3, 10)), ElementsAre(utc(2026, 3, 4, 7), utc(2026, 3, 5, 7)));
}

TEST_F(VdirExpansionTest, UntilEndsTheSeriesAndIsInclusive) {
  EXPECT_THAT(starts("until.ics", utc(2026, 1, 1), utc(2027, 1, 1)),
              ElementsAre(utc(2026, 3, 2, 6), utc(2026, 3, 9, 6), utc(2026, 3, 16, 6), utc(2026, 3, 23, 6)));
}

TEST_F(VdirExpansionTest, BySetPosMinusOneIsTheLastWeekdayOfTheMonth) {
  EXPECT_THAT(starts("bysetpos.ics", utc(2026, 1, 1), utc(2026, 6, 1)),
              ElementsAre(utc(2026, 1, 30, 16), utc(2026, 2, 27, 16), utc(2026, 3, 31, 15), utc(2026, 4, 30, 15),
                          utc(2026, 5, 29, 15)));
  // The same from a window that starts in the middle of the series.
  EXPECT_THAT(starts("bysetpos.ics", utc(2026, 4, 10), utc(2026, 5, 10)), ElementsAre(utc(2026, 4, 30, 15)));
}

TEST_F(VdirExpansionTest, ByMonthDayMinusOneIsTheLastDayOfTheMonth) {
  EXPECT_THAT(starts("bymonthday.ics", utc(2026, 1, 1), utc(2026, 5, 1)),
              ElementsAre(utc(2026, 1, 31, 11), utc(2026, 2, 28, 11), utc(2026, 3, 31, 10), utc(2026, 4, 30, 10)));
}

TEST_F(VdirExpansionTest, AnOverrideMovedOutOfTheWindowLeavesIt) {
  auto march = occurrences("moved.ics", utc(2026, 3, 1), utc(2026, 4, 1));
  std::vector<Date> starts;
  for (const auto& seen : march) starts.push_back(seen.start);
  // 12 March moved to 20 April; 7 May moved into March (28th).
  EXPECT_THAT(starts, ElementsAre(utc(2026, 3, 5, 13), utc(2026, 3, 19, 13), utc(2026, 3, 26, 13), utc(2026, 3, 28, 10)));
}

TEST_F(VdirExpansionTest, AnOverrideMovedIntoTheWindowIsDetachedWithItsOriginalDate) {
  auto march = occurrences("moved.ics", utc(2026, 3, 27), utc(2026, 3, 29));
  ASSERT_EQ(march.size(), 1u);
  EXPECT_TRUE(march[0].detached);
  EXPECT_EQ(march[0].title, "Jour fixe (moved in)");
  EXPECT_EQ(march[0].start, utc(2026, 3, 28, 10));
  EXPECT_EQ(march[0].end, utc(2026, 3, 28, 11));
  EXPECT_EQ(march[0].occurrence, utc(2026, 5, 7, 12));  // 14:00 CEST on 7 May
  auto april = occurrences("moved.ics", utc(2026, 4, 20), utc(2026, 4, 21));
  ASSERT_EQ(april.size(), 1u);
  EXPECT_EQ(april[0].occurrence, utc(2026, 3, 12, 13));
  EXPECT_TRUE(occurrences("moved.ics", utc(2026, 5, 7), utc(2026, 5, 8)).empty());
}

TEST_F(VdirExpansionTest, BerlinKeepsWallClockTimeAcrossTheSpringChange) {
  EXPECT_THAT(starts("dst-berlin.ics", utc(2026, 3, 1), utc(2026, 4, 1)),
              ElementsAre(utc(2026, 3, 27, 8), utc(2026, 3, 28, 8), utc(2026, 3, 29, 7), utc(2026, 3, 30, 7)));
}

TEST_F(VdirExpansionTest, NewYorkKeepsWallClockTimeAcrossTheSpringChange) {
  EXPECT_THAT(starts("dst-newyork.ics", utc(2026, 3, 1), utc(2026, 4, 1)),
              ElementsAre(utc(2026, 3, 6, 14), utc(2026, 3, 7, 14), utc(2026, 3, 8, 13), utc(2026, 3, 9, 13)));
}

TEST_F(VdirExpansionTest, AllDayYearlySeriesFallOnLocalMidnights) {
  auto seen = occurrences("allday-yearly.ics", utc(2030, 1, 1), utc(2031, 1, 1));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].start, utc(2030, 3, 14, 23));
  EXPECT_EQ(seen[0].end, utc(2030, 3, 15, 23));
  // The series began in 2000; its first occurrence is that year's.
  auto first = platform_->store()->firstOccurrence("cal/allday-yearly.ics");
  EXPECT_EQ(first->startDate(), utc(2000, 3, 14, 23));
}

TEST_F(VdirExpansionTest, FloatingSeriesFollowTheLocalZone) {
  EXPECT_THAT(starts("floating-weekly.ics", utc(2026, 3, 1), utc(2026, 4, 1)),
              ElementsAre(utc(2026, 3, 4, 17), utc(2026, 3, 11, 17), utc(2026, 3, 18, 17)));
}

TEST_F(VdirExpansionTest, ANarrowWindowOnASeriesFrom1990FindsItsOccurrence) {
  EXPECT_THAT(starts("daily-1990.ics", utc(2026, 7, 1, 5), utc(2026, 7, 1, 7)), ElementsAre(utc(2026, 7, 1, 6)));
  EXPECT_THAT(starts("daily-1990.ics", utc(1990, 1, 1), utc(1990, 1, 3)), ElementsAre(utc(1990, 1, 1, 7), utc(1990, 1, 2, 7)));
}

TEST_F(VdirExpansionTest, AnOccurrenceOverlappingTheWindowStartIsIncludedAndOneEndingAtItIsNot) {
  // Gym runs 09:00-10:00 CET on 10 March (08:00-09:00 UTC).
  EXPECT_THAT(starts("exdate.ics", utc(2026, 3, 10, 8, 30), utc(2026, 3, 10, 12)), ElementsAre(utc(2026, 3, 10, 8)));
  EXPECT_TRUE(starts("exdate.ics", utc(2026, 3, 10, 9), utc(2026, 3, 10, 12)).empty());
  EXPECT_TRUE(starts("exdate.ics", utc(2026, 3, 10, 7), utc(2026, 3, 10, 8)).empty());
}

TEST_F(VdirExpansionTest, CalendarListsSelectCollectionsAndAnEmptyListSelectsNone) {
  auto all = platform_->store()->events(utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt);
  EXPECT_FALSE(all.empty());
  EXPECT_EQ(platform_->store()->events(utc(2026, 3, 1), utc(2026, 4, 1), std::set<std::string>{}).size(), 0u);
  EXPECT_EQ(platform_->store()->events(utc(2026, 3, 1), utc(2026, 4, 1), std::set<std::string>{"cal"}).size(),
            all.size());
}

TEST_F(VdirExpansionTest, TheFirstOccurrenceOfASeriesIsItsStart) {
  auto first = platform_->store()->firstOccurrence("cal/exdate.ics");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->startDate(), utc(2026, 3, 3, 8));
  EXPECT_EQ(first->occurrenceDate(), utc(2026, 3, 3, 8));
}

TEST_F(VdirExpansionTest, APerSeriesLimitCutsAnExpansionShortAndSaysSo) {
  auto options = testing::platformOptions(testData("series"), access_.path() / "access.json");
  options.store.limits.maximumOccurrencesPerSeries = 10;
  auto limited = VdirPlatform::make(options);
  std::size_t pills = 0;
  for (const auto& event : limited->store()->events(utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt))
    if (event->eventIdentifier() == "cal/daily-1990.ics") ++pills;
  EXPECT_EQ(pills, 10u);
  bool reported = false;
  for (const auto& diagnostic : limited->diagnostics())
    if (diagnostic.path == "cal/daily-1990.ics" && diagnostic.action == VdirDiagnostic::Action::truncated)
      reported = true;
  EXPECT_TRUE(reported);
}

// Series that would otherwise hang a query or exhaust memory (tests/data/vdir/pathological).
class VdirPathologicalSeriesTest : public ::testing::Test {
 protected:
  std::shared_ptr<VdirPlatform> make(const VdirExpansionLimits& limits) {
    auto options = testing::platformOptions(testData("pathological"), access_.path() / "access.json");
    options.store.limits = limits;
    return VdirPlatform::make(options);
  }
  static std::map<std::string, std::size_t> countByFile(const std::vector<std::shared_ptr<platform::EKEvent>>& events) {
    std::map<std::string, std::size_t> counts;
    for (const auto& event : events) ++counts[*event->eventIdentifier()];
    return counts;
  }
  static bool reported(const std::vector<VdirDiagnostic>& diagnostics, const std::string& path) {
    return std::any_of(diagnostics.begin(), diagnostics.end(), [&](const VdirDiagnostic& d) {
      return d.path == path && d.action == VdirDiagnostic::Action::truncated;
    });
  }
  testing::TemporaryDirectory access_;
};

TEST_F(VdirPathologicalSeriesTest, AYearOfEveryPathologicalSeriesIsAnsweredWithinTheLimitsAndTheCutsAreReported) {
  auto platform = make(VdirExpansionLimits{});
  auto events = platform->store()->events(utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt);
  auto counts = countByFile(events);
  // Endless and counted secondly series stop at the per-series limit, and say so.
  EXPECT_EQ(counts["cal/secondly-endless.ics"], 100000u);
  EXPECT_EQ(counts["cal/count-2000000000.ics"], 100000u);
  EXPECT_EQ(counts["cal/until-9999.ics"], 100000u);
  auto diagnostics = platform->diagnostics();
  EXPECT_TRUE(reported(diagnostics, "cal/secondly-endless.ics"));
  EXPECT_TRUE(reported(diagnostics, "cal/until-9999.ics"));
  EXPECT_TRUE(reported(diagnostics, "cal/count-2000000000.ics"));  // cut when the file was read
  // The others are answered whole.
  EXPECT_EQ(counts["cal/dtstart-year-1.ics"], 365u);
  EXPECT_EQ(counts["cal/matches-nothing.ics"], 1u);  // DTSTART alone
  EXPECT_EQ(counts["cal/thousands-of-overrides.ics"], 365u);
  EXPECT_FALSE(reported(diagnostics, "cal/thousands-of-overrides.ics"));
}

TEST_F(VdirPathologicalSeriesTest, AQueryStopsAtItsOwnLimitsAndSaysItsAnswerIsIncomplete) {
  VdirExpansionLimits limits;
  limits.maximumOccurrencesPerQuery = 1000;
  auto platform = make(limits);
  auto events = platform->store()->events(utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt);
  EXPECT_LT(events.size(), 1000u + limits.maximumOccurrencesPerSeries);
  EXPECT_TRUE(reported(platform->diagnostics(), "."));
}

TEST_F(VdirPathologicalSeriesTest, ASeriesOverItsTimeLimitIsCutShort) {
  VdirExpansionLimits limits;
  limits.maximumSecondsPerSeries = 0.0;  // every series is over time at its first check
  auto platform = make(limits);
  auto counts = countByFile(platform->store()->events(utc(2026, 1, 1), utc(2026, 1, 2), std::nullopt));
  EXPECT_LT(counts["cal/secondly-endless.ics"], 86400u);
  bool timed = false;
  for (const auto& diagnostic : platform->diagnostics())
    if (diagnostic.problem.find("time limit") != std::string::npos) timed = true;
  EXPECT_TRUE(timed);
}

TEST_F(VdirPathologicalSeriesTest, ANarrowWindowOnEachPathologicalSeriesIsExact) {
  auto platform = make(VdirExpansionLimits{});
  auto counts = countByFile(platform->store()->events(utc(2026, 6, 1, 12), utc(2026, 6, 1, 12, 1), std::nullopt));
  EXPECT_EQ(counts["cal/secondly-endless.ics"], 60u);
  EXPECT_EQ(counts["cal/until-9999.ics"], 1u);
  // A sub-daily rule with filters cannot be jumped ahead exactly: it is walked from its start,
  // and a minute twelve hours on is still within the limits.
  auto early = countByFile(platform->store()->events(utc(2026, 1, 1, 12), utc(2026, 1, 1, 12, 1), std::nullopt));
  EXPECT_EQ(early["cal/hundreds-of-by-values.ics"], 60u);
}

TEST_F(VdirPathologicalSeriesTest, AFilteredSubDailySeriesTooFarFromItsStartIsReportedCutNeverWrong) {
  auto platform = make(VdirExpansionLimits{});
  auto counts = countByFile(platform->store()->events(utc(2026, 6, 1, 12), utc(2026, 6, 1, 12, 1), std::nullopt));
  // Thirteen million steps from DTSTART: over the per-series limit, so cut short and said so.
  EXPECT_EQ(counts["cal/hundreds-of-by-values.ics"], 0u);
  EXPECT_TRUE(reported(platform->diagnostics(), "cal/hundreds-of-by-values.ics"));
}

}  // namespace
}  // namespace vesp::vdir

namespace vesp::vdir {
namespace {

std::string zoneDefinition(const std::string& tzid, const std::string& standardRule) {
  return "BEGIN:VTIMEZONE\r\nTZID:" + tzid +
         "\r\nBEGIN:DAYLIGHT\r\nTZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\nTZNAME:CEST\r\nDTSTART:19700329T020000\r\n"
         "RRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\nEND:DAYLIGHT\r\nBEGIN:STANDARD\r\nTZOFFSETFROM:+0200\r\n"
         "TZOFFSETTO:+0100\r\nTZNAME:CET\r\nDTSTART:19701025T030000\r\nRRULE:" +
         standardRule + "\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";
}

std::string zonedEvent(const std::string& uid, const std::string& tzid, const std::string& zone, const std::string& start,
                       const std::string& end) {
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\n" + zone + "BEGIN:VEVENT\r\nUID:" + uid +
         "\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:" + uid + "\r\nDTSTART;TZID=" + tzid + ":" + start + "\r\nDTEND;TZID=" +
         tzid + ":" + end + "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
}

TEST(VdirZoneDefinitionTest, AZoneDefinitionThatChangesMoreOftenThanYearlyIsNotUsed) {
  testing::TemporaryDirectory directory;
  // An hourly observance would make libical expand thousands of changes a year.
  testing::writeFile(directory.path() / "store/cal/hourly.ics",
                     zonedEvent("hourly", "Custom/Hourly", zoneDefinition("Custom/Hourly", "FREQ=HOURLY;BYMONTH=10"),
                                "20260701T120000", "20260701T130000"));
  auto platform = VdirPlatform::make(testing::platformOptions(directory.path() / "store", directory.path() / "a.json"));
  auto events = platform->store()->events(utc(2026, 7, 1), utc(2026, 7, 2), std::nullopt);
  ASSERT_EQ(events.size(), 1u);
  // Read as a floating time in the local zone (Europe/Berlin, summer: UTC+2), and reported.
  EXPECT_EQ(*events[0]->startDate(), utc(2026, 7, 1, 10));
  auto diagnostics = platform->diagnostics();
  ASSERT_EQ(diagnostics.size(), 1u);
  EXPECT_THAT(diagnostics[0].problem, ::testing::HasSubstr("unknown time zone \"Custom/Hourly\""));
}

}  // namespace
}  // namespace vesp::vdir
