// The time index alone, over a snapshot built in memory from parsed items: which series a window
// looks at, and how the occurrences of recurring series are expanded once per period and kept.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platforms/vdir/VdirTimeIndex.h"
#include "platforms/vdir/VdirZones.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using ::testing::UnorderedElementsAre;
using testing::simpleEvent;

double seconds(int year, int month, int day) { return testing::utc(year, month, day).timeIntervalSince1970(); }

class VdirTimeIndexTest : public ::testing::Test {
 protected:
  // A snapshot of one collection holding the given files' items.
  std::shared_ptr<const VdirSnapshot> snapshotOf(const std::vector<std::string>& texts) {
    auto snapshot = std::make_shared<VdirSnapshot>();
    VdirCollection collection;
    collection.identifier = "cal";
    for (std::size_t i = 0; i < texts.size(); ++i) collection.items.push_back(item(texts[i], i));
    snapshot->collections.push_back(std::move(collection));
    return snapshot;
  }

  std::shared_ptr<const VdirItem> item(const std::string& text, std::size_t number) {
    const std::string name = std::to_string(number) + ".ics";
    auto parsed = parseItem("cal/" + name, name, text, {&zones_, &clock_, &addresses_, 100000});
    EXPECT_TRUE(parsed.item) << text;
    return parsed.item;
  }

  static std::set<std::string> candidateUids(const VdirTimeIndex& index, double a, double b) {
    std::set<std::string> uids;
    index.candidates(a, b, [&](const VdirTimeIndex::Entry& entry) { uids.insert(entry.series->master->uid); });
    return uids;
  }

  std::vector<double> starts(const std::vector<VdirOccurrence>& occurrences) {
    std::vector<double> values;
    for (const auto& occurrence : occurrences) values.push_back(occurrence.start);
    return values;
  }

  VdirZones zones_;
  VdirClock clock_{"UTC"};
  std::vector<std::string> addresses_;
  VdirExpansionLimits limits_;
  std::atomic<std::uint64_t> expansions_{0};
};

const std::string kWeekly = simpleEvent("weekly", "Weekly", "20260105T090000Z", "20260105T100000Z",
                                        "RRULE:FREQ=WEEKLY\r\n");

TEST_F(VdirTimeIndexTest, AWindowLooksOnlyAtTheSeriesThatCanOverlapIt) {
  auto snapshot = snapshotOf({simpleEvent("short", "Short", "20260110T090000Z", "20260110T100000Z"),
                              simpleEvent("long", "Long", "20260101T000000Z", "20260301T000000Z"), kWeekly,
                              simpleEvent("later", "Later", "20270110T090000Z", "20270110T100000Z")});
  VdirTimeIndex index(snapshot);

  EXPECT_THAT(candidateUids(index, seconds(2026, 2, 1), seconds(2026, 2, 2)), UnorderedElementsAre("long", "weekly"));
  EXPECT_THAT(candidateUids(index, seconds(2026, 1, 10), seconds(2026, 1, 11)),
              UnorderedElementsAre("short", "long", "weekly"));
  EXPECT_THAT(candidateUids(index, seconds(2027, 1, 10), seconds(2027, 1, 11)), UnorderedElementsAre("later", "weekly"));
  // Well after a series' last end, it is not looked at.
  EXPECT_THAT(candidateUids(index, seconds(2026, 4, 1), seconds(2026, 4, 2)), UnorderedElementsAre("weekly"));
}

TEST_F(VdirTimeIndexTest, APeriodIsExpandedOnceAndAnswersLikeADirectExpansion) {
  auto snapshot = snapshotOf({kWeekly});
  VdirTimeIndex index(snapshot);
  const auto& series = snapshot->collections[0].items[0]->series[0];
  const double a = seconds(2026, 2, 1), b = seconds(2026, 3, 1);

  std::vector<VdirOccurrence> kept, direct;
  ASSERT_TRUE(index.occurrencesThroughPeriods(series, a, b, clock_, limits_, expansions_, kept));
  ASSERT_TRUE(expandSeries(series, clock_, a, b, limits_, direct).has_value());
  EXPECT_EQ(starts(kept), starts(direct));
  EXPECT_EQ(starts(kept).size(), 4u);
  const auto runs = expansions_.load();
  EXPECT_GT(index.cachedOccurrences(), 0u);

  // The same window again is answered from what was kept.
  kept.clear();
  ASSERT_TRUE(index.occurrencesThroughPeriods(series, a, b, clock_, limits_, expansions_, kept));
  EXPECT_EQ(starts(kept), starts(direct));
  EXPECT_EQ(expansions_.load(), runs);
}

TEST_F(VdirTimeIndexTest, AnOccurrenceAcrossTwoPeriodsIsGivenOnce) {
  // Periods start every 32 days from 1970; 2021-03-02 starts one. A week-long occurrence from
  // 2021-02-27, every 64 days, straddles a period's start every time.
  const double boundary = 584 * VdirTimeIndex::kPeriod;
  ASSERT_EQ(boundary, seconds(2021, 3, 2));
  auto snapshot = snapshotOf({simpleEvent("straddle", "Straddle", "20210227T000000Z", "20210306T000000Z",
                                          "RRULE:FREQ=DAILY;INTERVAL=64\r\n")});
  VdirTimeIndex index(snapshot);
  const auto& series = snapshot->collections[0].items[0]->series[0];
  std::vector<VdirOccurrence> kept, direct;
  const double a = boundary - 40 * 86400.0, b = boundary + 100 * 86400.0;
  ASSERT_TRUE(index.occurrencesThroughPeriods(series, a, b, clock_, limits_, expansions_, kept));
  ASSERT_TRUE(expandSeries(series, clock_, a, b, limits_, direct).has_value());
  EXPECT_EQ(starts(kept), starts(direct));
  EXPECT_EQ(starts(kept), (std::vector<double>{seconds(2021, 2, 27), seconds(2021, 5, 2)}));
}

TEST_F(VdirTimeIndexTest, AWindowOfManyPeriodsIsLeftToTheCaller) {
  auto snapshot = snapshotOf({kWeekly});
  VdirTimeIndex index(snapshot);
  std::vector<VdirOccurrence> kept;
  EXPECT_FALSE(index.occurrencesThroughPeriods(snapshot->collections[0].items[0]->series[0], seconds(2026, 1, 1),
                                               seconds(2028, 1, 1), clock_, limits_, expansions_, kept));
  EXPECT_TRUE(kept.empty());
  EXPECT_EQ(expansions_.load(), 0u);
}

TEST_F(VdirTimeIndexTest, ASeriesCutByALimitIsLeftToTheCallerEveryTime) {
  auto snapshot = snapshotOf({simpleEvent("minutely", "Minutely", "20260101T000000Z", "20260101T000100Z",
                                          "RRULE:FREQ=MINUTELY\r\n")});
  VdirTimeIndex index(snapshot);
  limits_.maximumOccurrencesPerSeries = 100;
  const auto& series = snapshot->collections[0].items[0]->series[0];
  std::vector<VdirOccurrence> kept;
  EXPECT_FALSE(index.occurrencesThroughPeriods(series, seconds(2026, 1, 2), seconds(2026, 1, 3), clock_, limits_,
                                               expansions_, kept));
  EXPECT_FALSE(index.occurrencesThroughPeriods(series, seconds(2026, 1, 2), seconds(2026, 1, 3), clock_, limits_,
                                               expansions_, kept));
  EXPECT_TRUE(kept.empty());
  EXPECT_EQ(expansions_.load(), 1u);  // the cut period is remembered, not expanded again
}

TEST_F(VdirTimeIndexTest, TheNextSnapshotsIndexKeepsWhatWasExpandedForItemsItStillHas) {
  auto first = snapshotOf({kWeekly, simpleEvent("other", "Other", "20260105T090000Z", "20260105T100000Z",
                                                "RRULE:FREQ=DAILY\r\n")});
  VdirTimeIndex before(first);
  const double a = seconds(2026, 2, 1), b = seconds(2026, 3, 1);
  std::vector<VdirOccurrence> out;
  for (const auto& item : first->collections[0].items)
    ASSERT_TRUE(before.occurrencesThroughPeriods(item->series[0], a, b, clock_, limits_, expansions_, out));
  const auto runs = expansions_.load();

  // The next snapshot keeps the weekly item (the same object) and has the daily one read again.
  auto second = std::make_shared<VdirSnapshot>(*first);
  second->collections[0].items[1] = item(simpleEvent("other", "Other", "20260105T090000Z", "20260105T100000Z",
                                                     "RRULE:FREQ=DAILY\r\n"), 1);
  VdirTimeIndex after(second);
  after.carryOver(before);
  out.clear();
  ASSERT_TRUE(after.occurrencesThroughPeriods(second->collections[0].items[0]->series[0], a, b, clock_, limits_,
                                              expansions_, out));
  EXPECT_EQ(expansions_.load(), runs);  // kept from before
  ASSERT_TRUE(after.occurrencesThroughPeriods(second->collections[0].items[1]->series[0], a, b, clock_, limits_,
                                              expansions_, out));
  EXPECT_GT(expansions_.load(), runs);  // a new item is expanded anew
}

TEST_F(VdirTimeIndexTest, TwoQueriesLackingTheSamePeriodsBothExpandAndTheFirstToKeepWins) {
  auto snapshot = snapshotOf({kWeekly});
  VdirTimeIndex index(snapshot);
  const auto& series = snapshot->collections[0].items[0]->series[0];
  const double a = seconds(2026, 2, 1), b = seconds(2026, 3, 1);
  std::vector<VdirOccurrence> none;
  VdirTimeIndex::Expansion first, second;
  ASSERT_EQ(index.keptOccurrences(series, a, b, none, &first), VdirTimeIndex::Kept::missing);
  ASSERT_EQ(index.keptOccurrences(series, a, b, none, &second), VdirTimeIndex::Kept::missing);
  EXPECT_TRUE(none.empty());
  ASSERT_EQ(first.runs.size(), 1u);
  EXPECT_EQ(first.series, &series);

  // Both expand without the index, as two queries on two threads do, and both keep.
  VdirTimeIndex::expandPeriods(first, clock_, limits_, expansions_);
  VdirTimeIndex::expandPeriods(second, clock_, limits_, expansions_);
  EXPECT_EQ(expansions_.load(), 2u);
  index.keep(first);
  const auto kept = index.cachedOccurrences();
  EXPECT_GT(kept, 0u);
  index.keep(second);
  EXPECT_EQ(index.cachedOccurrences(), kept);  // the periods were kept already

  std::vector<VdirOccurrence> answer, direct;
  ASSERT_EQ(index.keptOccurrences(series, a, b, answer), VdirTimeIndex::Kept::answered);
  ASSERT_TRUE(expandSeries(series, clock_, a, b, limits_, direct).has_value());
  EXPECT_EQ(starts(answer), starts(direct));
}

// A daily event at 09:00 in a zone known by name only (libical's built-in zones).
std::string zonedDaily(const std::string& uid, const std::string& zone) {
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VEVENT\r\nUID:" + uid +
         "\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:Zoned\r\nDTSTART;TZID=" + zone +
         ":20260105T090000\r\nDURATION:PT1H\r\nRRULE:FREQ=DAILY;BYDAY=MO,WE,FR\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
}

// Queries on several threads share one index, each expanding what it lacks outside the index's lock:
// every answer is what a direct expansion of its window gives.
TEST_F(VdirTimeIndexTest, QueriesFromManyThreadsOnOneIndexAgreeWithDirectExpansion) {
  auto snapshot = snapshotOf({kWeekly,
                              simpleEvent("daily", "Daily", "20260101T070000Z", "20260101T073000Z",
                                          "RRULE:FREQ=DAILY\r\n"),
                              simpleEvent("hourly", "Hourly", "20260101T000000Z", "20260101T001500Z",
                                          "RRULE:FREQ=HOURLY;INTERVAL=7\r\n"),
                              zonedDaily("new-york", "America/New_York"), zonedDaily("berlin", "Europe/Berlin"),
                              zonedDaily("sydney", "Australia/Sydney")});
  VdirTimeIndex index(snapshot);
  const auto& items = snapshot->collections[0].items;
  std::vector<std::pair<double, double>> windows;
  for (int i = 0; i < 60; ++i) {
    const double a = seconds(2026, 1, 1) + i * 9 * 86400.0 + i * 3600.0;
    windows.emplace_back(a, a + (1 + (i * 7) % 60) * 86400.0);
  }
  auto answer = [&](std::size_t window, std::size_t item, bool throughIndex) {
    const auto [a, b] = windows[window];
    std::vector<VdirOccurrence> occurrences;
    if (!throughIndex || !index.occurrencesThroughPeriods(items[item]->series[0], a, b, clock_, limits_, expansions_,
                                                          occurrences)) {
      auto expanded = expandSeries(items[item]->series[0], clock_, a, b, limits_, occurrences);
      EXPECT_TRUE(expanded.has_value()) << (expanded ? "" : expanded.error().description());
    }
    std::sort(occurrences.begin(), occurrences.end(), [](const auto& x, const auto& y) { return x.start < y.start; });
    return starts(occurrences);
  };
  std::vector<std::vector<std::vector<double>>> expected(windows.size());
  for (std::size_t w = 0; w < windows.size(); ++w)
    for (std::size_t i = 0; i < items.size(); ++i) expected[w].push_back(answer(w, i, false));

  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (std::size_t round = 0; round < 3; ++round)
        for (std::size_t k = 0; k < windows.size(); ++k) {
          const std::size_t w = (k * (2 * t + 1) + round * 17) % windows.size();
          for (std::size_t i = 0; i < items.size(); ++i) EXPECT_EQ(answer(w, i, true), expected[w][i]) << w << " " << i;
        }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_GT(index.cachedOccurrences(), 0u);
}

}  // namespace
}  // namespace vesp::vdir
