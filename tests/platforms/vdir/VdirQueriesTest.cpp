// The queries alone, over snapshots built in memory from parsed items (no store, no files): what a
// window answers, what a limit cuts and reports, first occurrences and to-dos, and expansions kept
// from one snapshot to the next.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <optional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platforms/vdir/VdirEventStore.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirQueries.h"
#include "platforms/vdir/VdirSnapshotSource.h"
#include "platforms/vdir/VdirZones.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using ::testing::ElementsAre;
using testing::simpleEvent;
using testing::utc;

const std::string kTodo =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VTODO\r\nUID:t\r\nSUMMARY:Todo\r\n"
    "END:VTODO\r\nEND:VCALENDAR\r\n";
const std::string kDaily = simpleEvent("daily", "Daily", "20250105T090000Z", "20250105T100000Z",
                                       "RRULE:FREQ=DAILY\r\n");

class VdirQueriesTest : public ::testing::Test {
 protected:
  using Files = std::vector<std::pair<std::string, std::string>>;  // file name and text

  // A snapshot of the given collections, each a list of files, with the entries the store makes.
  std::shared_ptr<const VdirSnapshot> snapshotOf(const std::vector<std::pair<std::string, Files>>& collections) {
    auto snapshot = std::make_shared<VdirSnapshot>();
    for (const auto& [identifier, files] : collections) {
      VdirCollection collection;
      collection.identifier = identifier;
      collection.calendar = calendar(identifier);
      for (const auto& [name, text] : files) collection.items.push_back(item(identifier + "/" + name, name, text));
      snapshot->collections.push_back(std::move(collection));
    }
    return withEntries(snapshot);
  }

  // The same items under a new snapshot, as a scan that changed nothing in them makes.
  static std::shared_ptr<const VdirSnapshot> copyOf(const VdirSnapshot& snapshot) {
    auto copy = std::make_shared<VdirSnapshot>();
    copy->collections = snapshot.collections;
    return withEntries(copy);
  }

  static std::shared_ptr<const VdirSnapshot> withEntries(const std::shared_ptr<VdirSnapshot>& snapshot) {
    snapshot->entries = VdirEntries::of(snapshot->collections);
    return snapshot;
  }

  std::shared_ptr<const VdirItem> item(const std::string& path, const std::string& name, const std::string& text) {
    auto parsed = parseItem(path, name, text, {&zones_, &clock_, &addresses_, 100000});
    EXPECT_TRUE(parsed.item) << text;
    return parsed.item;
  }

  static std::shared_ptr<VdirCalendar> calendar(const std::string& identifier) {
    VdirCalendarFields fields;
    fields.identifier = identifier;
    fields.title = identifier;
    // The "tasks" collection is a reminder list; the others are event calendars.
    fields.entityTypes = identifier == "tasks" ? platform::EKEntityMaskReminder : platform::EKEntityMaskEvent;
    fields.source = std::make_shared<VdirSource>(".", platform::EKSourceTypeLocal, "Local");
    return std::make_shared<VdirCalendar>(fields);
  }

  VdirQueries queries(VdirExpansionLimits limits = {}) {
    return VdirQueries(clock_, limits, [this](VdirDiagnostic problem) { problems_.push_back(std::move(problem)); });
  }

  static std::vector<std::string> titles(const std::vector<std::shared_ptr<platform::EKEvent>>& events) {
    std::vector<std::string> result;
    for (const auto& event : events)
      result.push_back(event->title().value_or("") + " " + event->startDate().value().iso8601() + " " +
                       event->calendar()->calendarIdentifier());
    return result;
  }

  // 1500 series in collections "a" and "b", recurring in four ways; five start at each of 300
  // times, spread over 2026 out of the files' order. Their starts go to `firstStarts`.
  std::shared_ptr<const VdirSnapshot> seriesOverTheYear(std::map<std::string, double>& firstStarts) {
    static const char* const kRules[] = {"RRULE:FREQ=DAILY;INTERVAL=3\r\n", "RRULE:FREQ=WEEKLY;BYDAY=MO,TH\r\n",
                                         "RRULE:FREQ=MONTHLY;COUNT=40\r\n", ""};
    std::map<std::string, Files> byCollection;
    const double newYear = utc(2026, 1, 1).timeIntervalSince1970();
    for (int i = 0; i < 1500; ++i) {
      const int slot = i * 119 % 300;
      const auto start = static_cast<std::time_t>(newYear + slot * 86400.0 + (9 + slot % 10) * 3600.0);
      char from[32], to[32];
      std::tm parts{};
      gmtime_r(&start, &parts);
      std::strftime(from, sizeof from, "%Y%m%dT%H%M%SZ", &parts);
      std::strftime(to, sizeof to, "%Y%m%dT%H3000Z", &parts);
      const std::string collection = i % 2 ? "b" : "a", name = std::to_string(i);
      byCollection[collection].emplace_back(name + ".ics",
                                            simpleEvent("e" + name, "E" + name, from, to, kRules[i % 4]));
      firstStarts[collection + "/" + name + ".ics"] = static_cast<double>(start);
    }
    return snapshotOf({{"a", byCollection["a"]}, {"b", byCollection["b"]}});
  }

  // Each occurrence as its event identifier and start.
  static std::vector<std::string> occurrences(const std::vector<std::shared_ptr<platform::EKEvent>>& events) {
    std::vector<std::string> result;
    for (const auto& event : events)
      result.push_back(event->eventIdentifier().value() + " " + event->startDate().value().iso8601());
    return result;
  }

  VdirZones zones_;
  VdirClock clock_{"UTC"};
  std::vector<std::string> addresses_;
  std::vector<VdirDiagnostic> problems_;
};

TEST_F(VdirQueriesTest, AWindowAnswersTheOccurrencesThatOverlapItByStartInTheChosenCollections) {
  auto snapshot = snapshotOf(
      {{"home", {{"a.ics", simpleEvent("a", "A", "20260310T120000Z", "20260310T130000Z")}}},
       {"work",
        {{"b.ics", simpleEvent("b", "B", "20260310T080000Z", "20260310T093000Z")},
         {"c.ics", simpleEvent("c", "C", "20260311T090000Z", "20260311T100000Z")}, {"daily.ics", kDaily}}}});
  auto q = queries();
  EXPECT_THAT(titles(q.events(snapshot, utc(2026, 3, 10, 9), utc(2026, 3, 10, 18), std::nullopt)),
              ElementsAre("B 2026-03-10T08:00:00Z work", "Daily 2026-03-10T09:00:00Z work",
                          "A 2026-03-10T12:00:00Z home"));
  EXPECT_THAT(titles(q.events(snapshot, utc(2026, 3, 10, 9), utc(2026, 3, 10, 18), std::set<std::string>{"home"})),
              ElementsAre("A 2026-03-10T12:00:00Z home"));
  // An empty choice is no collection at all; a window of no length holds nothing.
  EXPECT_TRUE(q.events(snapshot, utc(2026, 3, 10), utc(2026, 3, 12), std::set<std::string>{}).empty());
  EXPECT_TRUE(q.events(snapshot, utc(2026, 3, 10, 12), utc(2026, 3, 10, 12), std::nullopt).empty());
  EXPECT_TRUE(problems_.empty());
}

TEST_F(VdirQueriesTest, OccurrencesStartingTogetherComeByEventIdentifierThenByTheOccurrenceTheyReplace) {
  // "a-b/y.ics" comes before "a/..." ('-' before '/'), although collection "a" comes first; the
  // moved occurrence of March 11 starts with the one of March 10 of its own series.
  const std::string daily =
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VEVENT\r\nUID:d\r\n"
      "DTSTAMP:20260101T000000Z\r\nSUMMARY:Daily\r\nDTSTART:20260301T090000Z\r\nDTEND:20260301T100000Z\r\n"
      "RRULE:FREQ=DAILY\r\nEND:VEVENT\r\nBEGIN:VEVENT\r\nUID:d\r\nDTSTAMP:20260101T000000Z\r\n"
      "RECURRENCE-ID:20260311T090000Z\r\nSUMMARY:Moved\r\nDTSTART:20260310T090000Z\r\n"
      "DTEND:20260310T100000Z\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
  auto snapshot =
      snapshotOf({{"a",
                   {{"d.ics", daily},
                    {"m.ics", simpleEvent("m", "M", "20260310T090000Z", "20260310T100000Z")},
                    {"z.ics", simpleEvent("z", "Z", "20260310T090000Z", "20260310T093000Z")}}},
                  {"a-b", {{"y.ics", simpleEvent("y", "AB", "20260310T090000Z", "20260310T091500Z")}}}});
  auto q = queries();
  // Expanded by the first query, answered from the kept periods by the second.
  for (int round = 0; round < 2; ++round)
    EXPECT_THAT(titles(q.events(snapshot, utc(2026, 3, 10, 8), utc(2026, 3, 10, 10), std::nullopt)),
                ElementsAre("AB 2026-03-10T09:00:00Z a-b", "Daily 2026-03-10T09:00:00Z a",
                            "Moved 2026-03-10T09:00:00Z a", "M 2026-03-10T09:00:00Z a", "Z 2026-03-10T09:00:00Z a"))
        << round;
  EXPECT_TRUE(problems_.empty());
}

// Many events starting together, in collections whose paths begin one another ("a", "a/b", "ab",
// "a-b", "a.b") and in files whose names share their first eight bytes or are shorter, some with a
// second series ("#UID"), and a file filed under a path that is not its collection's: the answer
// is in the order of the identifiers' whole texts, and the same from the kept periods.
TEST_F(VdirQueriesTest, OccurrencesStartingTogetherAreInTheOrderOfTheirIdentifiersWholeTexts) {
  std::mt19937 random(1128);
  const std::vector<std::string> collections = {"a", "a/b", "a/b/c", "ab", "a-b", "a.b", "b"};
  const std::string alphabet = "aa0-.#b";
  auto snapshot = std::make_shared<VdirSnapshot>();
  std::size_t series = 0;
  for (const auto& identifier : collections) {
    VdirCollection collection;
    collection.identifier = identifier;
    collection.calendar = calendar(identifier);
    std::set<std::string> names;
    while (names.size() < 40) {
      std::string name;
      for (std::size_t length = 1 + random() % 11; name.size() < length;) name += alphabet[random() % alphabet.size()];
      names.insert(random() % 2 ? name + ".ics" : name);
    }
    for (const auto& name : names) {
      const std::string uid = identifier + "/" + name;
      std::string text = simpleEvent(uid, "E", "20260310T090000Z", "20260310T100000Z");
      // Every fifth file holds a second event: a series of its own, named "#" and its UID.
      if (random() % 5 == 0) {
        const std::string second = simpleEvent(uid + "-2", "E", "20260310T090000Z", "20260310T100000Z");
        const auto begin = second.find("BEGIN:VEVENT"), end = second.find("END:VCALENDAR");
        text.insert(text.find("END:VCALENDAR"), second.substr(begin, end - begin));
        ++series;
      }
      // One file of "b" is filed under a path that is not its collection's, and sorts first.
      const bool elsewhere = identifier == "b" && name == *names.begin();
      const std::string path = (elsewhere ? "0-elsewhere" : identifier) + "/" + name;
      collection.items.push_back(item(path, name, text));
      ++series;
    }
    snapshot->collections.push_back(std::move(collection));
  }
  auto current = withEntries(snapshot);
  auto q = queries();
  for (int round = 0; round < 2; ++round) {
    std::vector<std::string> identifiers;
    for (const auto& event : q.events(current, utc(2026, 3, 10, 8), utc(2026, 3, 10, 10), std::nullopt))
      identifiers.push_back(event->eventIdentifier().value_or(""));
    ASSERT_EQ(identifiers.size(), series) << round;
    std::vector<std::string> sorted = identifiers;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(identifiers, sorted) << round;
    EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end()) << round;
  }
  EXPECT_TRUE(problems_.empty());
}

// A found event points to the very item its file gave (saves compare them), and keeps what it
// reads alive after its snapshot and the queries are let go.
TEST_F(VdirQueriesTest, AFoundEventIsOfItsFilesItemAndOutlivesTheSnapshotItWasFoundIn) {
  std::vector<std::shared_ptr<platform::EKEvent>> events;
  const VdirItem* daily = nullptr;
  {
    auto snapshot = snapshotOf({{"cal",
                                 {{"daily.ics", kDaily},
                                  {"once.ics", simpleEvent("once", "Once", "20260310T090000Z", "20260310T100000Z")}}}});
    daily = snapshot->collections[0].items[0].get();
    auto q = queries();
    // The first query expands the daily series' periods, the second answers from them.
    for (int round = 0; round < 2; ++round)
      events = q.events(snapshot, utc(2026, 3, 9), utc(2026, 3, 12), std::nullopt);
    ASSERT_EQ(events.size(), 4u);
    for (const auto& event : events) {
      const auto& fields = std::dynamic_pointer_cast<VdirEvent>(event)->fields();
      const std::size_t file = fields.series->identifier == "cal/daily.ics" ? 0 : 1;
      EXPECT_EQ(fields.item.get(), snapshot->collections[0].items[file].get());
    }
  }
  EXPECT_THAT(titles(events), ElementsAre("Daily 2026-03-09T09:00:00Z cal", "Daily 2026-03-10T09:00:00Z cal",
                                          "Once 2026-03-10T09:00:00Z cal", "Daily 2026-03-11T09:00:00Z cal"));
  EXPECT_EQ(std::dynamic_pointer_cast<VdirEvent>(events[0])->fields().item.get(), daily);
  auto rules = events[0]->recurrenceRules();
  events.clear();
  ASSERT_TRUE(rules);
  ASSERT_EQ(rules->size(), 1u);
  EXPECT_EQ((*rules)[0]->frequency(), platform::EKRecurrenceFrequencyDaily);
  EXPECT_EQ((*rules)[0]->interval(), 1);
}

// Only series that recur have periods to keep: events that happen once are answered from their
// files each time, and the index keeps nothing for them.
TEST_F(VdirQueriesTest, OnlySeriesThatRecurHavePeriodsKept) {
  auto once = snapshotOf({{"cal",
                           {{"a.ics", simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z")},
                            {"b.ics", simpleEvent("b", "B", "20260311T090000Z", "20260311T100000Z")}}}});
  auto q = queries();
  for (int round = 0; round < 2; ++round)
    EXPECT_EQ(q.events(once, utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt).size(), 2u);
  EXPECT_EQ(q.newlyKept(), 0u);
  auto withDaily = snapshotOf({{"cal", {{"daily.ics", kDaily}}}});
  EXPECT_EQ(q.events(withDaily, utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt).size(), 31u);
  EXPECT_GT(q.newlyKept(), 0u);
}

TEST_F(VdirQueriesTest, AQueryCutByItsLimitAnswersTheEarliestSeriesAndReportsTheFirstLeftOut) {
  Files files;
  for (int day = 9; day >= 1; --day) {
    const std::string date = "2026030" + std::to_string(day);
    files.emplace_back(std::to_string(day) + ".ics",
                       simpleEvent("e" + std::to_string(day), "E" + std::to_string(day), date + "T090000Z",
                                   date + "T100000Z"));
  }
  auto snapshot = snapshotOf({{"cal", files}});
  VdirExpansionLimits limits;
  limits.maximumOccurrencesPerQuery = 3;
  auto q = queries(limits);
  EXPECT_THAT(titles(q.events(snapshot, utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt)),
              ElementsAre("E1 2026-03-01T09:00:00Z cal", "E2 2026-03-02T09:00:00Z cal", "E3 2026-03-03T09:00:00Z cal"));
  ASSERT_EQ(problems_.size(), 1u);
  EXPECT_EQ(problems_[0].path, ".");
  EXPECT_EQ(problems_[0].action, VdirDiagnostic::Action::truncated);
  EXPECT_EQ(problems_[0].problem,
            "query from 2026-03-01T00:00:00Z to 2026-04-01T00:00:00Z stopped at cal/4.ics after 3 occurrences: "
            "the answer is incomplete");
}

TEST_F(VdirQueriesTest, AnExpansionCutByTheSeriesLimitIsReportedAgainstItsFile) {
  auto snapshot = snapshotOf({{"cal", {{"daily.ics", kDaily}}}});
  VdirExpansionLimits limits;
  limits.maximumOccurrencesPerSeries = 5;
  auto q = queries(limits);
  auto events = q.events(snapshot, utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt);
  EXPECT_LE(events.size(), 5u);
  ASSERT_FALSE(problems_.empty());
  EXPECT_EQ(problems_[0].path, "cal/daily.ics");
  EXPECT_THAT(problems_[0].problem, ::testing::HasSubstr("expansion stopped"));
}

// Enough series for a query to spread them over its threads: each window answers, first (expanding
// periods) and again (from the kept ones), exactly what one thread answers; a cut is reported once.
TEST_F(VdirQueriesTest, AQueryOverManySeriesAnswersTheSameOnAnyNumberOfThreads) {
  std::map<std::string, double> firstStarts;
  auto snapshot = seriesOverTheYear(firstStarts);
  auto alone = queries();
  VdirQueries spread(clock_, {}, [this](VdirDiagnostic problem) { problems_.push_back(std::move(problem)); }, 4);
  const std::pair<platform::Date, platform::Date> windows[] = {{utc(2026, 3, 10), utc(2026, 3, 11)},
                                                               {utc(2026, 3, 1), utc(2026, 4, 1)},
                                                               {utc(2026, 1, 1), utc(2027, 1, 1)}};
  std::size_t year = 0;
  for (const auto& [from, to] : windows) {
    const auto expected = titles(alone.events(snapshot, from, to, std::nullopt));
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(titles(spread.events(snapshot, from, to, std::nullopt)), expected) << from.iso8601();
    EXPECT_EQ(titles(spread.events(snapshot, from, to, std::nullopt)), expected) << from.iso8601();
    year = expected.size();
  }
  EXPECT_GT(year, 20000u);
  EXPECT_TRUE(problems_.empty());

  VdirExpansionLimits limits;
  limits.maximumOccurrencesPerQuery = 2000;
  VdirQueries cut(clock_, limits, [this](VdirDiagnostic problem) { problems_.push_back(std::move(problem)); }, 4);
  const auto events = cut.events(snapshot, utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt);
  EXPECT_GE(events.size(), 2000u);
  EXPECT_LT(events.size(), year);
  ASSERT_EQ(problems_.size(), 1u);
  EXPECT_EQ(problems_[0].path, ".");
  EXPECT_THAT(problems_[0].problem, ::testing::HasSubstr("the answer is incomplete"));
}

// A query cut by its occurrence limit answers whole series, taken by first start and then by
// identifier until the limit is met, with their problems, and names the first it left out: the
// same on one thread or four, cold or with periods kept by the same query or an earlier window.
TEST_F(VdirQueriesTest, AQueryCutByItsLimitAnswersTheSameWhateverItsThreadsAndKeptPeriods) {
  std::map<std::string, double> firstStarts;  // by identifier
  auto snapshot = seriesOverTheYear(firstStarts);
  auto said = [this] {
    std::vector<std::string> result;
    for (const auto& problem : problems_) result.push_back(problem.path + ": " + problem.problem);
    std::sort(result.begin(), result.end());
    problems_.clear();
    return result;
  };
  const platform::Date from = utc(2026, 1, 1), to = utc(2027, 1, 1);
  // `seriesLimit` cuts the series that repeat every third day too, and each says so. Such a cut
  // depends on how the window's periods were expanded (a run of them counts as one expansion), so
  // no earlier window primes the queries then.
  auto check = [&](std::size_t limit, const std::optional<std::set<std::string>>& chosen, std::size_t seriesLimit) {
    SCOPED_TRACE(std::to_string(limit) + " " + std::to_string(seriesLimit));
    VdirExpansionLimits limits;
    limits.maximumOccurrencesPerSeries = seriesLimit;
    problems_.clear();
    const auto whole = occurrences(queries(limits).events(snapshot, from, to, chosen));
    const auto seriesCuts = problems_;
    problems_.clear();
    // The series of the whole answer by first start, then identifier; those before the limit is met.
    std::map<std::string, std::size_t> counts;
    for (const auto& occurrence : whole) ++counts[occurrence.substr(0, occurrence.find(' '))];
    std::vector<std::string> order;
    for (const auto& [identifier, count] : counts) order.push_back(identifier);
    std::sort(order.begin(), order.end(), [&](const std::string& x, const std::string& y) {
      return std::pair(firstStarts.at(x), x) < std::pair(firstStarts.at(y), y);
    });
    std::set<std::string> kept;
    std::size_t total = 0, next = 0;
    for (; next < order.size() && total < limit; ++next) kept.insert(order[next]), total += counts[order[next]];
    ASSERT_LT(next, order.size());
    std::vector<std::string> expected, reported;
    for (const auto& occurrence : whole)
      if (kept.count(occurrence.substr(0, occurrence.find(' ')))) expected.push_back(occurrence);
    for (const auto& problem : seriesCuts)
      if (kept.count(problem.path)) reported.push_back(problem.path + ": " + problem.problem);
    reported.push_back(".: query from 2026-01-01T00:00:00Z to 2027-01-01T00:00:00Z stopped at " + order[next] +
                       " after " + std::to_string(total) + " occurrences: the answer is incomplete");
    std::sort(reported.begin(), reported.end());

    limits.maximumOccurrencesPerQuery = limit;
    auto sink = [this](VdirDiagnostic problem) { problems_.push_back(std::move(problem)); };
    VdirQueries alone(clock_, limits, sink, 1), spread(clock_, limits, sink, 4), primed(clock_, limits, sink, 4);
    std::vector<VdirQueries*> asked{&alone, &spread, &spread};
    if (seriesLimit == VdirExpansionLimits{}.maximumOccurrencesPerSeries) {
      static_cast<void>(primed.events(snapshot, utc(2026, 3, 1), utc(2026, 4, 1), chosen));
      ASSERT_GT(primed.newlyKept(), 0u);
      problems_.clear();  // the cut of the priming window itself
      asked.insert(asked.end(), {&primed, &primed});
    }
    for (VdirQueries* q : asked) {
      SCOPED_TRACE(q == &alone ? "alone" : q == &spread ? "spread" : "primed");
      EXPECT_TRUE(occurrences(q->events(snapshot, from, to, chosen)) == expected);
      EXPECT_EQ(said(), reported);
    }
  };
  const std::size_t unlimited = VdirExpansionLimits{}.maximumOccurrencesPerSeries;
  check(1, std::nullopt, unlimited);
  check(2000, std::nullopt, unlimited);
  check(7777, std::nullopt, unlimited);
  check(3000, std::set<std::string>{"b"}, unlimited);
  check(2000, std::nullopt, 100);
  check(9000, std::nullopt, 100);
}

TEST_F(VdirQueriesTest, FirstOccurrencesAndToDosAreFoundByIdentifier) {
  auto snapshot = snapshotOf({{"cal", {{"daily.ics", kDaily}}}, {"tasks", {{"t.ics", kTodo}}}});
  auto q = queries();
  auto first = q.firstOccurrence(*snapshot, "cal/daily.ics");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->startDate().value().iso8601(), "2025-01-05T09:00:00Z");
  EXPECT_EQ(q.firstOccurrence(*snapshot, "cal/none.ics"), nullptr);
  EXPECT_EQ(q.firstOccurrence(*snapshot, "tasks/t.ics"), nullptr);  // a to-do is not an event

  auto reminder = VdirQueries::reminder(*snapshot, "tasks/t.ics");
  ASSERT_NE(reminder, nullptr);
  EXPECT_EQ(reminder->title(), "Todo");
  EXPECT_EQ(VdirQueries::reminder(*snapshot, "cal/daily.ics"), nullptr);
  auto all = [](const VdirComponentData&) { return true; };
  EXPECT_EQ(VdirQueries::reminders(*snapshot, std::nullopt, all).size(), 1u);
  EXPECT_TRUE(VdirQueries::reminders(*snapshot, std::set<std::string>{"cal"}, all).empty());
}

TEST_F(VdirQueriesTest, ExpansionsKeptForOneSnapshotServeTheNextWhereItsSeriesAreTheSame) {
  auto snapshot = snapshotOf({{"cal", {{"daily.ics", kDaily}}}});
  auto q = queries();
  const auto answer = titles(q.events(snapshot, utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt));
  ASSERT_EQ(answer.size(), 31u);
  const auto expansions = q.expansionCount();
  EXPECT_GT(expansions, 0u);
  EXPECT_EQ(titles(q.events(copyOf(*snapshot), utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt)), answer);
  EXPECT_EQ(q.expansionCount(), expansions);
  // Once forgotten, the same window is expanded again, and answers the same.
  q.forget();
  EXPECT_EQ(titles(q.events(snapshot, utc(2026, 3, 1), utc(2026, 4, 1), std::nullopt)), answer);
  EXPECT_GT(q.expansionCount(), expansions);
}

// A source of snapshots held in memory: what a connection needs of any iCalendar-backed source.
class MemorySource : public VdirSnapshotSource {
 public:
  MemorySource(const VdirClock& clock, std::shared_ptr<const VdirSnapshot> snapshot)
      : queries_(clock, {}, nullptr), snapshot_(std::move(snapshot)) {}
  std::shared_ptr<const VdirSnapshot> snapshot() const override { return snapshot_; }
  VdirQueries& queries() override { return queries_; }
  std::uint64_t addChangeListener(ChangeListener listener) override {
    listeners_.emplace(++token_, std::move(listener));
    return token_;
  }
  void removeChangeListener(std::uint64_t token) override { listeners_.erase(token); }
  bool readable() const override { return true; }
  std::string description() const override { return "memory"; }

  void replace(std::shared_ptr<const VdirSnapshot> snapshot) {
    snapshot_ = std::move(snapshot);
    for (auto& [token, listener] : listeners_) listener(platform::EKEntityMaskEvent | platform::EKEntityMaskReminder);
  }
  std::size_t listeners() const { return listeners_.size(); }

 private:
  VdirQueries queries_;
  std::shared_ptr<const VdirSnapshot> snapshot_;
  std::map<std::uint64_t, ChangeListener> listeners_;
  std::uint64_t token_ = 0;
};

TEST_F(VdirQueriesTest, AConnectionAnswersOverASourceThatIsNoDirectory) {
  auto source = std::make_shared<MemorySource>(
      clock_, snapshotOf({{"cal", {{"daily.ics", kDaily}}}, {"tasks", {{"t.ics", kTodo}}}}));
  testing::TemporaryDirectory config;
  auto services = std::make_shared<VdirServices>();
  services->source = source;
  services->access = std::make_shared<VdirAccess>((config.path() / "access.json").string(), "vesp");
  services->center = std::make_shared<platform::NSNotificationCenter>();
  services->bundle = std::make_shared<platform::NSBundle>();
  auto connection = VdirEventStore::make(services);
  EXPECT_EQ(connection->description(), "<EKEventStore memory>");

  auto calendars = connection->calendarsForEntityType(platform::EKEntityTypeEvent);
  ASSERT_EQ(calendars.size(), 1u);
  EXPECT_EQ(calendars[0]->calendarIdentifier(), "cal");
  auto events = connection->eventsMatchingPredicate(
      connection->predicateForEventsWithStartDate(utc(2026, 3, 10), utc(2026, 3, 12), std::nullopt));
  EXPECT_THAT(titles(events), ElementsAre("Daily 2026-03-10T09:00:00Z cal", "Daily 2026-03-11T09:00:00Z cal"));
  auto todo = connection->calendarItemWithIdentifier("tasks/t.ics");
  ASSERT_NE(todo, nullptr);
  EXPECT_EQ(todo->title(), "Todo");

  // A new snapshot of the source: the connection posts its change, and answers from it.
  int posted = 0;
  auto observer = std::make_shared<int>(0);
  services->center->addObserver(observer, "changed:", [&](const platform::Notification&) { ++posted; },
                                platform::EKEventStoreChangedNotification, connection.get());
  source->replace(snapshotOf({{"cal", {}}}));
  EXPECT_EQ(posted, 1);
  EXPECT_TRUE(connection->eventsMatchingPredicate(
                  connection->predicateForEventsWithStartDate(utc(2026, 3, 10), utc(2026, 3, 12), std::nullopt))
                  .empty());
  connection.reset();
  EXPECT_EQ(source->listeners(), 0u);
}

}  // namespace
}  // namespace vesp::vdir
