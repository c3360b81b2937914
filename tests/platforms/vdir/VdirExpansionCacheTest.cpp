// The periods a store's queries expanded are saved beside its cache and taken over by the next
// store of the same tree: its first queries expand nothing they already had, answer exactly what a
// store without any cache answers, and a changed file, a damaged file or a foreign one costs an
// expansion, never a wrong answer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <libical/ical.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

#include "Vesp/VespEventInstance.h"
#include "platforms/vdir/VdirCache.h"
#include "platforms/vdir/VdirCacheBytes.h"
#include "platforms/vdir/VdirExpansionCache.h"
#include "platforms/vdir/VdirStore.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::TemporaryDirectory;
using testing::testData;
using testing::utc;
using testing::writeFile;
namespace fs = std::filesystem;

VdirStoreOptions storeOptions(const fs::path& root, std::optional<fs::path> cache) {
  VdirStoreOptions options;
  options.root = root.string();
  options.localTimeZone = "Europe/Berlin";
  options.watch = false;
  options.cacheDirectory = cache ? cache->string() : "";
  return options;
}

std::shared_ptr<VdirStore> open(const VdirStoreOptions& options) {
  auto store = VdirStore::make(options, testing::settledClock());
  store->flushCache();
  return store;
}

// Windows of every length the index keeps by period (a day up to fifteen months), and each month
// of 2026, in an order that is not the calendar's.
std::vector<std::pair<platform::Date, platform::Date>> windows() {
  std::vector<std::pair<platform::Date, platform::Date>> result = {
      {utc(2026, 3, 29), utc(2026, 3, 30)},       {utc(2026, 10, 20, 13), utc(2026, 10, 27, 9)},
      {utc(2025, 6, 1), utc(2026, 9, 1)},         {utc(2026, 2, 27, 22), utc(2026, 3, 2, 1)},
      {utc(1990, 1, 1), utc(1990, 2, 15)},        {utc(2027, 12, 24), utc(2028, 1, 8)},
  };
  for (int month : {7, 1, 12, 4, 9, 2, 11, 5, 3, 8, 10, 6})
    result.emplace_back(utc(2026, month, 1), month == 12 ? utc(2027, 1, 1) : utc(2026, month + 1, 1));
  return result;
}

// Every window's occurrences as records (every field the data model has), in the store's order.
std::vector<std::vector<VespEventInstance>> answers(VdirStore& store) {
  std::vector<std::vector<VespEventInstance>> result;
  for (const auto& [start, end] : windows()) {
    auto& records = result.emplace_back();
    for (const auto& event : store.events(start, end, std::nullopt)) records.emplace_back(*event);
  }
  return result;
}

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(VdirExpansionCacheTest, AReopenedStoreExpandsNothingAnEarlierStoreExpandedAndAnswersTheSame) {
  for (const char* corpus : {"series", "mapping"}) {
    TemporaryDirectory directory;
    fs::copy(testData(corpus), directory.path() / "store", fs::copy_options::recursive);
    const auto cache = directory.path() / "cache";
    auto expected = answers(*open(storeOptions(directory.path() / "store", std::nullopt)));
    std::string expansions;
    {
      auto first = open(storeOptions(directory.path() / "store", cache));
      expansions = expansionCachePath(first->cacheStatus().path);
      EXPECT_EQ(first->cacheStatus().adoptedPeriods, 0u) << corpus;
      EXPECT_EQ(answers(*first), expected) << corpus;
      EXPECT_GT(first->expansionCount(), 0u) << corpus;
      EXPECT_FALSE(fs::exists(expansions)) << corpus << ": saved when the store is let go of";
    }
    ASSERT_TRUE(fs::exists(expansions)) << corpus;

    auto second = open(storeOptions(directory.path() / "store", cache));
    EXPECT_GT(second->cacheStatus().adoptedPeriods, 0u) << corpus << ": " << second->cacheStatus().expansionProblem;
    EXPECT_EQ(answers(*second), expected) << corpus;
    EXPECT_EQ(second->expansionCount(), 0u) << corpus;
    // Nothing new was expanded: the file is not written again.
    const auto written = fs::last_write_time(expansions);
    second.reset();
    EXPECT_EQ(fs::last_write_time(expansions), written) << corpus;
  }
}

// A weekly series and a daily one, each in its own file.
void makeTwoSeries(const fs::path& root, const std::string& weeklyRule) {
  writeFile(root / "cal" / "weekly.ics",
            testing::simpleEvent("weekly", "Weekly", "20260105T090000Z", "20260105T100000Z", weeklyRule));
  writeFile(root / "cal" / "daily.ics", testing::simpleEvent("daily", "Daily", "20260101T070000Z",
                                                             "20260101T073000Z", "RRULE:FREQ=DAILY\r\n"));
}

// A month of 2026 as the recurring series answer it, and each month of 2026.
std::vector<std::string> month(VdirStore& store, int number) {
  std::vector<std::string> titles;
  const auto end = number == 12 ? utc(2027, 1, 1) : utc(2026, number + 1, 1);
  for (const auto& event : store.events(utc(2026, number, 1), end, std::nullopt))
    titles.push_back(event->title().value_or("") + " " + event->startDate()->iso8601());
  return titles;
}

std::vector<std::vector<std::string>> months(VdirStore& store) {
  std::vector<std::vector<std::string>> result;
  for (int number = 1; number <= 12; ++number) result.push_back(month(store, number));
  return result;
}

// Files changed after a store saved its periods: a changed file's series is expanded again, and
// only it. Writing the daily series' file again with the same bytes makes a new version all the same.
TEST(VdirExpansionCacheTest, AChangedFileLosesItsPeriodsAndOnlyItsSeriesIsExpandedAgain) {
  struct Change {
    const char* weeklyRule;
    bool dailyWrittenAgain;
    std::size_t occurrences, adopted, expanded;
  };
  // March 2026 lies in one period (the 641st since 1970): each series keeps one.
  for (const Change& change : {Change{"RRULE:FREQ=WEEKLY;INTERVAL=2\r\n", true, 31 + 3, 0, 2},
                               Change{"RRULE:FREQ=WEEKLY;BYDAY=MO,TH\r\n", false, 31 + 9, 1, 1}}) {
    TemporaryDirectory directory;
    const auto root = directory.path() / "store", cache = directory.path() / "cache";
    makeTwoSeries(root, "RRULE:FREQ=WEEKLY\r\n");
    ASSERT_EQ(month(*open(storeOptions(root, cache)), 3).size(), 31u + 5u);

    if (change.dailyWrittenAgain) {
      makeTwoSeries(root, change.weeklyRule);
    } else {
      writeFile(root / "cal" / "weekly.ics", testing::simpleEvent("weekly", "Weekly", "20260105T090000Z",
                                                                  "20260105T100000Z", change.weeklyRule));
    }
    auto reopened = open(storeOptions(root, cache));
    EXPECT_EQ(reopened->cacheStatus().adoptedPeriods, change.adopted) << change.weeklyRule;
    const auto after = month(*reopened, 3);
    EXPECT_EQ(after, month(*open(storeOptions(root, std::nullopt)), 3)) << change.weeklyRule;
    EXPECT_EQ(after.size(), change.occurrences) << change.weeklyRule;
    EXPECT_EQ(reopened->expansionCount(), change.expanded) << change.weeklyRule;
  }
}

TEST(VdirExpansionCacheTest, DamagedCutShortForeignOrOtherFormatExpansionsAreIgnoredAndWrittenAgain) {
  TemporaryDirectory directory;
  const auto root = directory.path() / "store", cache = directory.path() / "cache";
  makeTwoSeries(root, "RRULE:FREQ=WEEKLY\r\n");
  const auto expected = month(*open(storeOptions(root, std::nullopt)), 3);
  std::string path;
  {
    auto first = open(storeOptions(root, cache));
    month(*first, 3);
    path = expansionCachePath(first->cacheStatus().path);
  }
  const std::string good = readAll(path);
  ASSERT_GT(good.size(), kCacheHeaderSize);
  std::string damaged = good, otherFormat = good;
  damaged[good.size() - 3] ^= 0x40;
  const std::uint32_t format = kVdirExpansionCacheFormat + 1;
  std::memcpy(otherFormat.data() + 8, &format, 4);
  const std::vector<std::pair<std::string, std::string>> spoilt = {
      {good.substr(0, good.size() - 5), "cut short or grown"},
      {damaged, "the cache is damaged"},
      {otherFormat, "a cache of format"},
      {"not expansions at all, but long enough to hold a header", "not a cache file"},
  };
  for (const auto& [bytes, problem] : spoilt) {
    writeFile(path, bytes);
    auto store = open(storeOptions(root, cache));
    EXPECT_EQ(store->cacheStatus().adoptedPeriods, 0u) << problem;
    EXPECT_THAT(store->cacheStatus().expansionProblem, ::testing::HasSubstr(problem));
    EXPECT_EQ(month(*store, 3), expected) << problem;
    EXPECT_EQ(store->expansionCount(), 2u) << problem;
    store.reset();
    EXPECT_EQ(readAll(path), good) << problem << ": written whole again";
  }
}

TEST(VdirExpansionCacheTest, StoresOfSeveralProcessesAtOnceLeaveWholeExpansionsTheNextStoreTakesOver) {
  TemporaryDirectory directory;
  const auto root = directory.path() / "store", cache = directory.path() / "cache";
  makeTwoSeries(root, "RRULE:FREQ=WEEKLY\r\n");
  const auto expected = months(*open(storeOptions(root, std::nullopt)));
  // Each process asks for other months, so each saves other periods over the others' file.
  auto rounds = [&](int process) {
    bool right = true;
    for (int round = 0; round < 5; ++round) {
      auto store = open(storeOptions(root, cache));
      const int number = 1 + (process * 5 + round) % 12;
      right = right && store->cacheStatus().expansionProblem.empty() &&
              month(*store, number) == expected[static_cast<std::size_t>(number - 1)];
    }
    return right;
  };
  std::vector<pid_t> children;
  for (int child = 1; child <= 4; ++child) {
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) ::_exit(rounds(child) ? 0 : 1);
    children.push_back(pid);
  }
  EXPECT_TRUE(rounds(0));
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  auto last = open(storeOptions(root, cache));
  EXPECT_TRUE(last->cacheStatus().expansionProblem.empty()) << last->cacheStatus().expansionProblem;
  EXPECT_GT(last->cacheStatus().adoptedPeriods, 0u);
  EXPECT_EQ(months(*last), expected);
  // The cache and the expansions, and no temporary file left behind.
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator(cache)) {
    (void)entry;
    ++files;
  }
  EXPECT_EQ(files, 2u);
}

// A host about to exit closes its store and leaves its memory to the exit: the close must have
// done what the store's destruction does, and the store must write nothing after it.
TEST(VdirExpansionCacheTest, AClosedStoreHasSavedItsPeriodsAndStillAnswersButWritesNothingMore) {
  TemporaryDirectory directory;
  const auto root = directory.path() / "store";
  fs::copy(testData("series"), root, fs::copy_options::recursive);
  const auto cache = directory.path() / "cache";
  auto store = open(storeOptions(root, cache));
  const std::string cacheFile = store->cacheStatus().path;
  const std::string expansions = expansionCachePath(cacheFile);
  ASSERT_TRUE(fs::exists(cacheFile));
  const auto expected = answers(*store);
  EXPECT_FALSE(fs::exists(expansions));

  store->close();
  ASSERT_TRUE(fs::exists(expansions)) << "the periods are saved by the close";
  const std::string savedCache = readAll(cacheFile), savedPeriods = readAll(expansions);
  store->close();
  EXPECT_TRUE(readAll(expansions) == savedPeriods) << "a second close writes nothing";

  // Still answering: the same windows, a window never asked before, and a file added since.
  EXPECT_EQ(answers(*store), expected);
  const auto expanded = store->expansionCount();
  EXPECT_FALSE(store->events(utc(2031, 1, 1), utc(2031, 2, 1), std::nullopt).empty());
  EXPECT_GT(store->expansionCount(), expanded) << "periods the destruction could have saved";
  writeFile(root / "cal" / "added.ics", testing::simpleEvent("added", "Added", "20310105T090000Z", "20310105T100000Z"));
  EXPECT_TRUE(store->refresh());
  std::vector<std::string> titles;
  for (const auto& event : store->events(utc(2031, 1, 5), utc(2031, 1, 6), std::nullopt))
    titles.push_back(event->title().value_or(""));
  EXPECT_THAT(titles, ::testing::Contains("Added"));
  store->flushCache();
  store.reset();
  EXPECT_TRUE(readAll(cacheFile) == savedCache) << "no cache written after the close";
  EXPECT_TRUE(readAll(expansions) == savedPeriods) << "no periods saved after the close";

  // The next store takes over what the close saved, and reads only the file added since.
  auto next = open(storeOptions(root, cache));
  EXPECT_GT(next->cacheStatus().adoptedPeriods, 0u) << next->cacheStatus().expansionProblem;
  EXPECT_EQ(next->parseCount(), 1u);
  EXPECT_EQ(answers(*next), answers(*open(storeOptions(root, std::nullopt))));
}

TEST(VdirExpansionCacheTest, ExpansionsThatCannotBeWrittenLeaveTheStoreServing) {
  TemporaryDirectory directory;
  const auto root = directory.path() / "store", cache = directory.path() / "cache";
  makeTwoSeries(root, "RRULE:FREQ=WEEKLY\r\n");
  const auto expected = month(*open(storeOptions(root, std::nullopt)), 3);
  // A directory where the expansions file would go: it can be neither written nor read.
  const std::string path = expansionCachePath(open(storeOptions(root, cache))->cacheStatus().path);
  fs::create_directories(path);
  for (int round = 0; round < 2; ++round) {
    auto store = open(storeOptions(root, cache));
    EXPECT_EQ(store->cacheStatus().adoptedPeriods, 0u) << round;
    EXPECT_FALSE(store->cacheStatus().expansionProblem.empty()) << round;
    EXPECT_TRUE(store->cacheStatus().loaded) << round;
    EXPECT_EQ(month(*store, 3), expected) << round;
    EXPECT_EQ(store->expansionCount(), 2u) << round;
  }
  EXPECT_TRUE(fs::is_directory(path));
}

TEST(VdirExpansionCacheTest, ExpansionsOfAnotherStoreOrMadeWithinOtherLimitsAreRefused) {
  const VdirFileRecords records;
  VdirTimeIndex::KeptBySeries kept;
  const std::string bytes = encodeExpansionCache("key one", {}, records, kept, 0);
  EXPECT_TRUE(decodeExpansionCache(bytes, "key one", {}, records).has_value());
  auto other = decodeExpansionCache(bytes, "key two", {}, records);
  ASSERT_FALSE(other.has_value());
  EXPECT_EQ(other.error().message(), "expansions of another store");
  for (int limit = 0; limit < 3; ++limit) {
    VdirExpansionLimits lower;
    if (limit == 0) lower.maximumOccurrencesPerSeries = 10;
    if (limit == 1) lower.maximumIteratorStepsPerSeries = 10;
    if (limit == 2) lower.maximumSecondsPerSeries = 0.5;
    auto limited = decodeExpansionCache(bytes, "key one", lower, records);
    ASSERT_FALSE(limited.has_value()) << limit;
    EXPECT_EQ(limited.error().message(), "expansions made within other limits") << limit;
  }
}

// Expansions sealed right but holding what no store writes: each is refused whole.
class ForgedExpansions : public ::testing::Test {
 protected:
  void SetUp() override {
    writeFile(directory.path() / "store" / "cal" / "daily.ics",
              testing::simpleEvent("daily", "Daily", "20260101T070000Z", "20260101T073000Z", "RRULE:FREQ=DAILY\r\n"));
    store = open(storeOptions(directory.path() / "store", directory.path() / "cache"));
    ASSERT_EQ(store->snapshot()->collections.size(), 1u);
    item = store->snapshot()->collections[0].items.at(0);
    record.item = item;
    records = {{"cal/daily.ics", record}};
  }

  // One series, one period, one occurrence.
  std::string forge(std::int64_t period, std::uint32_t component, double start, double end) {
    std::string out;
    VdirCacheWriter w(out);
    w.text(ICAL_VERSION);
    w.text("key");
    w.f64(VdirTimeIndex::kPeriod);
    const VdirExpansionLimits limits;
    w.u64(limits.maximumOccurrencesPerSeries);
    w.u64(limits.maximumIteratorStepsPerSeries);
    w.f64(limits.maximumSecondsPerSeries);
    w.u32(1);
    w.u32(0);
    w.text("cal/daily.ics");
    for (int field = 0; field < 5; ++field) w.u64(0);
    w.u32(0);  // the series
    w.u32(1);
    w.i64(period);
    w.u32(1);
    w.u32(component);
    w.f64(start);
    w.f64(end);
    w.f64(start);
    w.flag(false);
    return sealExpansionCachePayload(out);
  }

  TemporaryDirectory directory;
  std::shared_ptr<VdirStore> store;
  std::shared_ptr<const VdirItem> item;
  VdirFileRecord record;
  VdirFileRecords records;
};

TEST_F(ForgedExpansions, AWellFormedOneIsTakenOver) {
  const double start = 20 * VdirTimeIndex::kPeriod + 3600;
  auto adopted = decodeExpansionCache(forge(20, 0, start, start + 1800), "key", {}, records);
  ASSERT_TRUE(adopted.has_value()) << adopted.error().message();
  ASSERT_EQ(adopted->size(), 1u);
  EXPECT_EQ((*adopted)[0].series, &item->series[0]);
  EXPECT_EQ((*adopted)[0].period, 20);
  ASSERT_EQ((*adopted)[0].occurrences.size(), 1u);
  EXPECT_EQ((*adopted)[0].occurrences[0].component, &*item->series[0].master);
  EXPECT_EQ((*adopted)[0].occurrences[0].start, start);
}

TEST_F(ForgedExpansions, AFileAtAnotherVersionGivesNothing) {
  records[0].second.size = 1;
  const double start = 20 * VdirTimeIndex::kPeriod;
  auto adopted = decodeExpansionCache(forge(20, 0, start, start + 1800), "key", {}, records);
  ASSERT_TRUE(adopted.has_value());
  EXPECT_TRUE(adopted->empty());
}

TEST_F(ForgedExpansions, AComponentTheSeriesLacksIsRefused) {
  const double start = 20 * VdirTimeIndex::kPeriod;
  auto adopted = decodeExpansionCache(forge(20, 1, start, start + 1800), "key", {}, records);
  ASSERT_FALSE(adopted.has_value());
  EXPECT_EQ(adopted.error().message(), "an occurrence of a component the series does not have");
}

TEST_F(ForgedExpansions, AnOccurrenceOutsideItsPeriodIsRefused) {
  const double start = 21 * VdirTimeIndex::kPeriod;
  auto adopted = decodeExpansionCache(forge(20, 0, start, start + 1800), "key", {}, records);
  ASSERT_FALSE(adopted.has_value());
  EXPECT_EQ(adopted.error().message(), "an occurrence outside its period");
  const double before = 19 * VdirTimeIndex::kPeriod;
  auto earlier = decodeExpansionCache(forge(20, 0, before, before + 1800), "key", {}, records);
  ASSERT_FALSE(earlier.has_value());
  EXPECT_EQ(earlier.error().message(), "an occurrence outside its period");
  auto endless = decodeExpansionCache(forge(20, 0, 1e300, 1e300), "key", {}, records);
  ASSERT_FALSE(endless.has_value());
  EXPECT_EQ(endless.error().message(), "a time out of range");
}

TEST(VdirExpansionCacheTest, PruningTakesExpansionsWithTheirCacheAndRemovesThoseWithoutOne) {
  TemporaryDirectory directory;
  const auto cache = directory.path() / "cache";
  makeTwoSeries(directory.path() / "kept", "RRULE:FREQ=WEEKLY\r\n");
  makeTwoSeries(directory.path() / "gone", "RRULE:FREQ=WEEKLY\r\n");
  std::string keptExpansions, goneCache;
  {
    auto kept = open(storeOptions(directory.path() / "kept", cache));
    auto gone = open(storeOptions(directory.path() / "gone", cache));
    month(*kept, 3);
    month(*gone, 3);
    keptExpansions = expansionCachePath(kept->cacheStatus().path);
    goneCache = gone->cacheStatus().path;
  }
  ASSERT_TRUE(fs::exists(expansionCachePath(goneCache)));
  const auto orphan = (cache / "store-0123456789abcdef.expansions").string();
  writeFile(orphan, "expansions of a cache that is not there");
  fs::remove_all(directory.path() / "gone");

  std::shared_ptr<VdirEnv> env = VdirEnv::posix();
  const auto removed = pruneCaches(*env, cache.string(), (cache / "none.cache").string(), {});
  EXPECT_EQ(removed, 3u);
  EXPECT_FALSE(fs::exists(goneCache));
  EXPECT_FALSE(fs::exists(expansionCachePath(goneCache)));
  EXPECT_FALSE(fs::exists(orphan));
  EXPECT_TRUE(fs::exists(keptExpansions));
}

// The directory's byte limit counts each cache with the expansions kept beside it, the store's own
// included: caches that fit alone go when their expansions do not.
TEST(VdirExpansionCacheTest, PruningCountsTheExpansionsBesideEachCacheInTheDirectorysBytes) {
  TemporaryDirectory directory;
  const auto cache = directory.path() / "cache";
  std::map<std::string, std::string> caches;  // by store
  int age = 3;
  for (const char* name : {"older", "newer", "own"}) {
    makeTwoSeries(directory.path() / name, "RRULE:FREQ=WEEKLY\r\n");
    {
      auto store = open(storeOptions(directory.path() / name, cache));
      month(*store, 3);
      caches[name] = store->cacheStatus().path;
    }
    ASSERT_TRUE(fs::exists(expansionCachePath(caches[name]))) << name;
    fs::last_write_time(caches[name], fs::file_time_type::clock::now() - std::chrono::hours(age--));
  }
  auto bytes = [&](const char* name, bool withExpansions) {
    return fs::file_size(caches[name]) + (withExpansions ? fs::file_size(expansionCachePath(caches[name])) : 0);
  };
  std::shared_ptr<VdirEnv> env = VdirEnv::posix();
  VdirCacheDirectoryLimits limits;
  limits.bytes = bytes("own", true) + bytes("newer", true) + bytes("older", false);
  EXPECT_EQ(pruneCaches(*env, cache.string(), (cache / "none.cache").string(), limits), 2u);
  EXPECT_FALSE(fs::exists(caches["older"]));
  EXPECT_FALSE(fs::exists(expansionCachePath(caches["older"])));
  EXPECT_TRUE(fs::exists(caches["newer"]));

  limits.bytes = bytes("own", false) + bytes("newer", true);
  EXPECT_EQ(pruneCaches(*env, cache.string(), caches["own"], limits), 2u);
  EXPECT_FALSE(fs::exists(caches["newer"]));
  EXPECT_FALSE(fs::exists(expansionCachePath(caches["newer"])));
  EXPECT_TRUE(fs::exists(caches["own"]));
  EXPECT_TRUE(fs::exists(expansionCachePath(caches["own"])));
}

}  // namespace
}  // namespace vesp::vdir
