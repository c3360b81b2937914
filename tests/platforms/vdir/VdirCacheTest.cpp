// The persistent cache: reopening re-parses only what changed, and a cache that is cut short,
// damaged, of another format or store, or written by several processes at once never gives a
// wrong answer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <thread>

#include "Vesp/VespEventInstance.h"
#include "platforms/vdir/VdirCache.h"
#include "platforms/vdir/VdirStore.h"
#include "platforms/vdir/VdirZones.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::simpleEvent;
using testing::TemporaryDirectory;
using testing::testData;
using testing::utc;
using testing::writeFile;
namespace fs = std::filesystem;

VdirStoreOptions storeOptions(const fs::path& root, const fs::path& cache) {
  VdirStoreOptions options;
  options.root = root.string();
  options.localTimeZone = "Europe/Berlin";
  options.watch = false;
  options.cacheDirectory = cache.string();
  return options;
}

// Every occurrence of 2026 as records (every field the data model has), in the store's order.
std::vector<VespEventInstance> answer(VdirStore& store) {
  std::vector<VespEventInstance> records;
  for (const auto& event : store.events(utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt))
    records.emplace_back(*event);
  return records;
}

std::vector<std::string> titles(VdirStore& store) {
  std::vector<std::string> result;
  for (const auto& event : store.events(utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt))
    result.push_back(event->eventIdentifier().value_or("") + " " + event->title().value_or(""));
  return result;
}

// Event `number` (from 1) falls on its own day of 2026, from 1 February on.
std::string event(int number, const std::string& title) {
  char start[32], end[32];
  int month = 2 + (number - 1) / 28, day = 1 + (number - 1) % 28;
  std::snprintf(start, sizeof start, "2026%02d%02dT090000Z", month, day);
  std::snprintf(end, sizeof end, "2026%02d%02dT100000Z", month, day);
  return simpleEvent("uid-" + std::to_string(number), title, start, end);
}

// A store of `count` one-event files in one collection, old enough to be cached.
void makeStore(const fs::path& root, int count) {
  for (int day = 1; day <= count; ++day)
    writeFile(root / "cal" / ("e" + std::to_string(day) + ".ics"), event(day, "Event " + std::to_string(day)));
}

std::string cacheFileOf(const VdirStore& store) { return store.cacheStatus().path; }

// A store opened once its cache is written (it is written in the background). Its scans' clock
// is ahead of the files' times unless the test asks for the real one.
std::shared_ptr<VdirStore> openFlushed(const VdirStoreOptions& options,
                                       std::shared_ptr<VdirEnv> env = testing::settledClock()) {
  auto store = VdirStore::make(options, std::move(env));
  store->flushCache();
  return store;
}

TEST(VdirCacheTest, AnUnchangedStoreIsReopenedFromTheCacheWithoutParsingAndAnswersTheSame) {
  TemporaryDirectory directory;
  makeStore(directory.path() / "store", 20);
  auto first = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  EXPECT_FALSE(first->cacheStatus().loaded);
  EXPECT_EQ(first->parseCount(), 20u);
  EXPECT_EQ(first->cacheStatus().writes, 1u);
  EXPECT_TRUE(fs::exists(cacheFileOf(*first)));

  auto second = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  EXPECT_TRUE(second->cacheStatus().loaded);
  EXPECT_EQ(second->cacheStatus().loadedFiles, 20u);
  EXPECT_EQ(second->parseCount(), 0u);
  EXPECT_EQ(second->cacheStatus().writes, 0u);  // nothing changed: nothing written
  EXPECT_EQ(answer(*second), answer(*first));
  EXPECT_EQ(answer(*second).size(), 20u);
}

TEST(VdirCacheTest, EveryFieldOfTheMappingAndSeriesCorporaSurvivesTheCache) {
  for (const char* corpus : {"mapping", "series"}) {
    TemporaryDirectory directory;
    fs::copy(testData(corpus), directory.path() / "store", fs::copy_options::recursive);
    auto options = storeOptions(directory.path() / "store", directory.path() / "cache");
    auto uncached = openFlushed([&] {
      auto o = options;
      o.cacheDirectory = "";
      return o;
    }());
    auto writing = openFlushed(options);
    auto reading = openFlushed(options);
    ASSERT_TRUE(reading->cacheStatus().loaded) << corpus << ": " << reading->cacheStatus().loadProblem;
    EXPECT_EQ(reading->parseCount(), 0u) << corpus;
    auto expected = answer(*uncached);
    EXPECT_FALSE(expected.empty()) << corpus;
    EXPECT_EQ(answer(*reading), expected) << corpus;
    EXPECT_EQ(reading->diagnostics(), uncached->diagnostics()) << corpus;
    // Reminders too.
    auto all = [](const VdirComponentData&) { return true; };
    EXPECT_EQ(reading->reminders(std::nullopt, all).size(), uncached->reminders(std::nullopt, all).size()) << corpus;
  }
}

TEST(VdirCacheTest, OnlyTheFilesThatChangedAreParsedAgain) {
  TemporaryDirectory directory;
  makeStore(directory.path() / "store", 10);
  openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  writeFile(directory.path() / "store/cal/e3.ics", event(3, "Changed three"));
  writeFile(directory.path() / "store/cal/e7.ics", event(7, "Changed seven, and longer"));
  auto reopened = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  EXPECT_TRUE(reopened->cacheStatus().loaded);
  EXPECT_EQ(reopened->parseCount(), 2u);
  auto served = titles(*reopened);
  EXPECT_THAT(served, ::testing::Contains("cal/e3.ics Changed three"));
  EXPECT_THAT(served, ::testing::Contains("cal/e7.ics Changed seven, and longer"));
  EXPECT_EQ(reopened->cacheStatus().writes, 1u);
}

TEST(VdirCacheTest, ADeletedFileIsGoneAndARenamedFileIsServedUnderItsNewName) {
  TemporaryDirectory directory;
  makeStore(directory.path() / "store", 5);
  openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  fs::remove(directory.path() / "store/cal/e1.ics");
  fs::rename(directory.path() / "store/cal/e2.ics", directory.path() / "store/cal/renamed.ics");
  auto reopened = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  EXPECT_EQ(reopened->parseCount(), 1u);  // the renamed file, under its new path
  EXPECT_THAT(titles(*reopened), ::testing::ElementsAre("cal/renamed.ics Event 2", "cal/e3.ics Event 3",
                                                        "cal/e4.ics Event 4", "cal/e5.ics Event 5"));
}

TEST(VdirCacheTest, AFileChangedWithinTheTimestampGranularityOfTheScanIsNeverTrustedFromTheCache) {
  TemporaryDirectory directory;
  const fs::path file = directory.path() / "store/cal/racy.ics";
  writeFile(file, event(4, "Version A"));
  struct stat before {};
  ASSERT_EQ(::stat(file.c_str(), &before), 0);
  // Opened at once: the file's times are as new as the scan, so a change within the same tick
  // could keep size and times as they are.
  auto first = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"), VdirEnv::posix());
  EXPECT_THAT(titles(*first), ::testing::ElementsAre("cal/racy.ics Version A"));
  // Changed to another text of the same size, its modification time put back as it was.
  writeFile(file, event(4, "Version B"));
  timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  auto second = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"), VdirEnv::posix());
  EXPECT_EQ(second->parseCount(), 1u);  // not taken from the cache
  EXPECT_THAT(titles(*second), ::testing::ElementsAre("cal/racy.ics Version B"));
}

TEST(VdirCacheTest, RecordsAreTrustedOnlyWhenOlderThanTheTimestampGranularity) {
  const std::int64_t second = 1000000000, scan = 1800000000 * second + 123456789;
  // Times with a fraction of a second: a fine-grained file system (coarse clock ticks of 1-10 ms).
  EXPECT_TRUE(trustedRecord(scan - second / 10 + 7, scan - second / 5 + 3, scan));
  EXPECT_FALSE(trustedRecord(scan - second / 100 + 7, scan - second + 3, scan));
  EXPECT_FALSE(trustedRecord(scan - second + 3, scan - second / 100 + 7, scan));
  // Whole seconds: maybe a file system that keeps seconds (or two), where a change after the scan
  // can keep the stamp of one up to two seconds before it.
  const std::int64_t whole = (scan / second) * second;  // 0.123 s before the scan
  EXPECT_FALSE(trustedRecord(whole, whole, scan));
  EXPECT_FALSE(trustedRecord(whole - second, whole - second, scan));
  EXPECT_TRUE(trustedRecord(whole - 2 * second, whole - 2 * second, scan));
  EXPECT_TRUE(trustedRecord(whole - 3 * second, whole - 3 * second, scan));
}

// Opens the store after `damage` was done to its cache: the answer is right, the damaged cache
// was not used, and it is written anew.
void expectRebuiltAfter(const std::function<void(const std::string&)>& damage, const std::string& problem) {
  TemporaryDirectory directory;
  makeStore(directory.path() / "store", 12);
  auto first = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  auto expected = answer(*first);
  damage(cacheFileOf(*first));
  auto second = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  EXPECT_FALSE(second->cacheStatus().loaded);
  EXPECT_THAT(second->cacheStatus().loadProblem, ::testing::HasSubstr(problem));
  EXPECT_EQ(second->parseCount(), 12u);
  EXPECT_EQ(answer(*second), expected);
  EXPECT_EQ(second->cacheStatus().writes, 1u);
  auto third = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  EXPECT_TRUE(third->cacheStatus().loaded);
  EXPECT_EQ(answer(*third), expected);
}

TEST(VdirCacheTest, ATruncatedCacheIsIgnoredAndRebuilt) {
  expectRebuiltAfter([](const std::string& path) { fs::resize_file(path, fs::file_size(path) / 2); }, "length");
  expectRebuiltAfter([](const std::string& path) { fs::resize_file(path, 10); }, "ends early");
  expectRebuiltAfter([](const std::string& path) { fs::resize_file(path, 0); }, "ends early");
}

TEST(VdirCacheTest, ADamagedCacheIsIgnoredAndRebuilt) {
  expectRebuiltAfter(
      [](const std::string& path) {
        std::string bytes = testing::readFile(path);
        bytes[bytes.size() / 2] ^= 0x20;
        writeFile(path, bytes);
      },
      "damaged");
  expectRebuiltAfter([](const std::string& path) { writeFile(path, "BEGIN:VCALENDAR\r\nnot a cache\r\n"); },
                     "not a cache");
}

TEST(VdirCacheTest, ACacheOfAnotherFormatIsIgnoredAndRebuilt) {
  expectRebuiltAfter(
      [](const std::string& path) {
        std::string bytes = testing::readFile(path);
        std::uint32_t format = kVdirCacheFormat + 1;
        std::memcpy(bytes.data() + 8, &format, 4);
        writeFile(path, bytes);
      },
      "format");
}

TEST(VdirCacheTest, ACacheOfAnotherStoreIsNotUsed) {
  TemporaryDirectory directory;
  makeStore(directory.path() / "other", 3);
  auto other = openFlushed(storeOptions(directory.path() / "other", directory.path() / "cache"));
  expectRebuiltAfter([&](const std::string& path) { fs::copy_file(cacheFileOf(*other), path, fs::copy_options::overwrite_existing); },
                     "another store");
}

// A store's cache without its header, and the store's key written in it.
struct CachePayload {
  std::string payload, key;
};
CachePayload cachePayloadOf(const VdirStore& store) {
  const std::string payload = testing::readFile(cacheFileOf(store)).substr(32);
  // The payload starts with libical's version and the store's key, each a 32-bit length and bytes.
  auto text = [&](std::size_t at) {
    std::uint32_t length = 0;
    std::memcpy(&length, payload.data() + at, 4);
    return payload.substr(at + 4, length);
  };
  return {payload, text(4 + text(0).size())};
}

// The cache's payload and key of a store of `count` events made under `directory`.
CachePayload cachePayloadOfNewStore(const fs::path& directory, int count) {
  makeStore(directory / "store", count);
  return cachePayloadOf(*openFlushed(storeOptions(directory / "store", directory / "cache")));
}

TEST(VdirCacheTest, ACacheWithABadPayloadUnderARightHeaderIsIgnored) {
  TemporaryDirectory directory;
  const auto [payload, key] = cachePayloadOfNewStore(directory.path(), 4);
  VdirZones zones;
  ASSERT_THAT(key, ::testing::HasSubstr("root="));
  auto whole = decodeCache(sealCachePayload(payload), key, zones, 2);
  ASSERT_TRUE(whole) << whole.error().message();
  // Every shorter payload, and one with each byte of a stretch changed, is refused or decodes to
  // something well-formed; never a crash.
  for (std::size_t length = 0; length < payload.size(); length += 7)
    EXPECT_FALSE(decodeCache(sealCachePayload(payload.substr(0, length)), key, zones, 2)) << length;
  for (std::size_t at = 0; at < payload.size(); at += 13) {
    std::string changed = payload;
    changed[at] = static_cast<char>(~changed[at]);
    (void)decodeCache(sealCachePayload(changed), key, zones, 1);
  }
}

// Decoding gives back what it read, so that a mapped cache and its records are not held whole at
// once: the payload after its hash is checked, then each block as it is decoded, from its thread.
TEST(VdirCacheTest, DecodingReleasesThePayloadOnceCheckedAndEachBlockOnceDecoded) {
  TemporaryDirectory directory;
  const auto [payload, key] = cachePayloadOfNewStore(directory.path(), 1);
  VdirZones zones;
  auto one = decodeCache(sealCachePayload(payload), key, zones, 1);
  ASSERT_TRUE(one) << one.error().message();
  ASSERT_EQ(one->size(), 1u);
  // 5,000 records (three blocks), each the store's one record under a path of its own.
  VdirFileRecords records;
  for (int i = 0; i < 5000; ++i) {
    auto item = std::make_shared<VdirItem>(*one->front().second.item);
    item->relativePath = "cal/e" + std::to_string(i) + ".ics";
    VdirFileRecord record = one->front().second;
    record.item = item;
    records.emplace_back(item->relativePath, std::move(record));
  }
  std::size_t left = 0;
  const std::string bytes = encodeCache(key, records, zones, std::numeric_limits<std::int64_t>::max(), left);
  ASSERT_EQ(left, 0u);

  std::mutex mutex;
  std::vector<std::string_view> released;
  auto decoded = decodeCache(bytes, key, zones, 2, [&](std::string_view part) {
    std::lock_guard lock(mutex);
    released.push_back(part);
  });
  ASSERT_TRUE(decoded) << decoded.error().message();
  ASSERT_EQ(decoded->size(), records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ((*decoded)[i].first, records[i].first);
    EXPECT_EQ((*decoded)[i].second.item->relativePath, records[i].first);
  }
  const std::string_view sealed(bytes), checked = sealed.substr(32);
  ASSERT_EQ(released.size(), 4u);
  EXPECT_EQ(released.front().data(), checked.data());
  EXPECT_EQ(released.front().size(), checked.size());
  std::vector<std::string_view> blocks(released.begin() + 1, released.end());
  std::sort(blocks.begin(), blocks.end(), [](auto a, auto b) { return a.data() < b.data(); });
  for (std::size_t b = 0; b < blocks.size(); ++b) {
    EXPECT_GT(blocks[b].size(), 0u);
    EXPECT_GE(blocks[b].data(), checked.data());
    EXPECT_LE(blocks[b].data() + blocks[b].size(), checked.data() + checked.size());
    if (b > 0) {
      EXPECT_LE(blocks[b - 1].data() + blocks[b - 1].size(), blocks[b].data()) << "blocks overlap";
    }
  }
}

// Every component of `records` (masters, overrides, to-dos), to be changed through `visit`.
template <class Records, class Visit>
void eachComponent(Records& records, Visit visit) {
  for (auto& [path, record] : records) {
    if (!record.item) continue;
    for (auto& series : record.item->series) {
      if (series.master) visit(*series.master);
      for (auto& override : series.overrides) visit(override);
    }
    for (auto& todo : record.item->todos) visit(todo);
  }
}

// A component's details (title, notes, people, alarms, places) stay the cache's bytes until a
// record reads them. They are decoded once, by whichever thread comes first, and a cache written
// again from details never read holds the very bytes it was read from.
TEST(VdirCacheTest, DetailsAreDecodedOnlyWhenReadAndWrittenBackAsTheyWereRead) {
  TemporaryDirectory directory;
  fs::copy(testData("mapping"), directory.path() / "store", fs::copy_options::recursive);
  const auto [payload, key] =
      cachePayloadOf(*openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache")));
  VdirZones zones;
  auto decoded = decodeCache(sealCachePayload(payload), key, zones, 1);
  ASSERT_TRUE(decoded) << decoded.error().message();
  std::vector<const VdirComponentData*> components;
  eachComponent(*decoded, [&](const VdirComponentData& component) { components.push_back(&component); });
  ASSERT_GT(components.size(), 20u);
  for (const VdirComponentData* component : components) EXPECT_NE(component->details.encoded(), nullptr);

  constexpr std::int64_t kLongAfter = std::numeric_limits<std::int64_t>::max();
  std::size_t left = 0;
  const std::string unread = encodeCache(key, *decoded, zones, kLongAfter, left);
  ASSERT_EQ(left, 0u);
  EXPECT_TRUE(std::string_view(unread).substr(32) == payload) << "details written back as they were read";

  // Eight threads read every component's details at once: each sees the one decoded copy.
  std::vector<std::vector<const VdirComponentDetails*>> seen(8);
  std::vector<std::thread> threads;
  for (auto& addresses : seen)
    threads.emplace_back([&components, &addresses] {
      for (const VdirComponentData* component : components) addresses.push_back(&*component->details);
    });
  for (auto& thread : threads) thread.join();
  for (const auto& addresses : seen) EXPECT_EQ(addresses, seen.front());
  const auto titled = std::count_if(components.begin(), components.end(),
                                    [](const VdirComponentData* c) { return c->details->summary.has_value(); });
  EXPECT_GT(titled, 20);

  // Written from the decoded values (each copy's own, as the reader of a file makes them): the same
  // bytes again.
  VdirFileRecords copies = *decoded;
  for (auto& [path, record] : copies) record.item = std::make_shared<VdirItem>(*record.item);
  eachComponent(copies, [](const VdirComponentData& component) {
    const_cast<VdirComponentData&>(component).details.edit();
    EXPECT_EQ(component.details.encoded(), nullptr);
  });
  const std::string rewritten = encodeCache(key, copies, zones, kLongAfter, left);
  EXPECT_TRUE(std::string_view(rewritten).substr(32) == payload) << "details written again field by field";
}

// Why a cache whose byte `at` is `changed` is refused; empty when it is not.
std::string refusal(std::string payload, const std::string& key, std::size_t at, char changed) {
  payload[at] = changed;
  VdirZones zones;
  auto decoded = decodeCache(sealCachePayload(payload), key, zones, 1);
  return decoded ? "" : decoded.error().message();
}

// Details are checked when the cache is read, as every other field is: a damaged one refuses the
// whole cache then, rather than a record later.
TEST(VdirCacheTest, ADamagedDetailRefusesTheCacheWhenItIsRead) {
  TemporaryDirectory directory;
  const auto [payload, key] = cachePayloadOfNewStore(directory.path(), 4);
  // Event 1's SUMMARY, in its details: a tag, a flag (a title is there), a 32-bit length, the text.
  const auto title = payload.find("Event 1");
  ASSERT_NE(title, std::string::npos);
  ASSERT_GE(title, 6u);
  EXPECT_THAT(refusal(payload, key, title, static_cast<char>(0xFF)), ::testing::HasSubstr("not UTF-8"));
  EXPECT_THAT(refusal(payload, key, title - 6, static_cast<char>(0xEE)),
              ::testing::HasSubstr("no known tag, or out of its place"));
}

// Each field is written after its tag: a tag the schema does not know, or a known one in another
// field's place (a cache of another schema), is damage, and the cache is not used.
TEST(VdirCacheTest, AFieldOfNoKnownTagOrOutOfItsPlaceIsRefused) {
  TemporaryDirectory directory;
  const auto [payload, key] = cachePayloadOfNewStore(directory.path(), 4);
  VdirZones zones;
  ASSERT_TRUE(decodeCache(sealCachePayload(payload), key, zones, 1));
  // A record starts with its path: a tag, a 32-bit length, the bytes.
  const auto path = payload.find("cal/e1.ics");
  ASSERT_NE(path, std::string::npos);
  ASSERT_GE(path, 5u);
  const std::size_t tag = path - 5;
  for (char changed : {static_cast<char>(0xEE), static_cast<char>(payload[tag] + 1)})
    EXPECT_THAT(refusal(payload, key, tag, changed), ::testing::HasSubstr("no known tag, or out of its place"))
        << static_cast<int>(changed);
}

// A rule the files' reader refuses (libical might never return from it) cannot come from a cache
// either: a cache holding one was damaged, and is not used.
TEST(VdirCacheTest, ACacheHoldingARuleTheReaderRefusesIsNotUsed) {
  VdirZones zones;
  VdirClock clock("UTC");
  std::vector<std::string> addresses;
  const std::string text =
      simpleEvent("m", "M", "20260105T090000Z", "20260105T091000Z", "RRULE:FREQ=MINUTELY;BYHOUR=9\r\n");
  auto parsed = parseItem("cal/m.ics", "m.ics", text, {&zones, &clock, &addresses, 100000});
  ASSERT_TRUE(parsed.item);
  ASSERT_EQ(parsed.item->series.at(0).rules.size(), 1u);
  // The parsed item with its rule replaced, in a cache whose every record is trusted.
  auto cacheWith = [&](const char* ruleText) {
    auto item = std::make_shared<VdirItem>(*parsed.item);
    icalrecurrencetype rule = icalrecurrencetype_from_string(ruleText);
    item->series[0].rules[0].rule = VdirCompactRule(rule);
    std::free(rule.rscale);
    VdirFileRecord record;
    record.item = item;
    std::size_t left = 0;
    auto bytes = encodeCache("key", {{"cal/m.ics", record}}, zones, std::numeric_limits<std::int64_t>::max(), left);
    EXPECT_EQ(left, 0u);
    return bytes;
  };
  auto accepted = decodeCache(cacheWith("FREQ=MINUTELY;BYHOUR=10"), "key", zones, 1);
  ASSERT_TRUE(accepted) << accepted.error().message();
  ASSERT_EQ(accepted->size(), 1u);
  auto refused = decodeCache(cacheWith("FREQ=MINUTELY;BYDAY=1SU"), "key", zones, 1);
  ASSERT_FALSE(refused);
  EXPECT_THAT(refused.error().message(), ::testing::HasSubstr("a rule the reader refuses"));
}

// The lengths of PERIOD RDATEs come back from the cache; periods out of order, or one that ends
// before it starts (which the reader never keeps), come only from damage and are refused.
TEST(VdirCacheTest, ACacheHoldingPeriodsTheReaderNeverMakesIsNotUsed) {
  VdirZones zones;
  VdirClock clock("UTC");
  std::vector<std::string> addresses;
  const std::string text =
      simpleEvent("m", "M", "20260105T090000Z", "20260105T091000Z",
                  "RDATE;VALUE=PERIOD:20260107T090000Z/PT2H,20260106T090000Z/20260106T120000Z\r\n");
  auto parsed = parseItem("cal/m.ics", "m.ics", text, {&zones, &clock, &addresses, 100000});
  ASSERT_TRUE(parsed.item);
  const auto& periods = parsed.item->series.at(0).rdatePeriods;
  ASSERT_EQ(periods.size(), 2u);
  EXPECT_EQ(periods[0].length, 3 * 3600.0);
  EXPECT_EQ(periods[1].length, 2 * 3600.0);
  auto cacheWith = [&](const std::vector<VdirRdatePeriod>& changed) {
    auto item = std::make_shared<VdirItem>(*parsed.item);
    item->series[0].rdatePeriods = changed;
    VdirFileRecord record;
    record.item = item;
    std::size_t left = 0;
    return encodeCache("key", {{"cal/m.ics", record}}, zones, std::numeric_limits<std::int64_t>::max(), left);
  };
  auto kept = decodeCache(cacheWith(periods), "key", zones, 1);
  ASSERT_TRUE(kept) << kept.error().message();
  const auto& back = kept->at(0).second.item->series.at(0).rdatePeriods;
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back[0].start, periods[0].start);
  EXPECT_EQ(back[1].length, periods[1].length);
  auto outOfOrder = decodeCache(cacheWith({periods[1], periods[0]}), "key", zones, 1);
  ASSERT_FALSE(outOfOrder);
  EXPECT_EQ(outOfOrder.error().message(), "periods out of order");
  auto backwards = decodeCache(cacheWith({{periods[0].start, -60.0}}), "key", zones, 1);
  ASSERT_FALSE(backwards);
  EXPECT_EQ(backwards.error().message(), "a period that ends before it starts");
}

TEST(VdirCacheTest, StoresOpenedByTwoProcessesAtOnceBothWorkAndLeaveAWholeCache) {
  TemporaryDirectory directory;
  makeStore(directory.path() / "store", 60);
  const auto root = directory.path() / "store", cache = directory.path() / "cache";
  std::vector<pid_t> children;
  for (int child = 0; child < 4; ++child) {
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      bool right = true;
      for (int round = 0; round < 5; ++round) {
        auto store = openFlushed(storeOptions(root, cache));
        right = right && store->events(utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt).size() == 60;
      }
      ::_exit(right ? 0 : 1);
    }
    children.push_back(pid);
  }
  for (int round = 0; round < 5; ++round) {
    auto store = openFlushed(storeOptions(root, cache));
    EXPECT_EQ(store->events(utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt).size(), 60u);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  auto last = openFlushed(storeOptions(root, cache));
  EXPECT_TRUE(last->cacheStatus().loaded) << last->cacheStatus().loadProblem;
  EXPECT_EQ(last->parseCount(), 0u);
  // No temporary file is left behind.
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator(fs::path(cacheFileOf(*last)).parent_path())) {
    (void)entry;
    ++files;
  }
  EXPECT_EQ(files, 1u);
}

TEST(VdirCacheTest, ACacheDirectoryThatCannotBeWrittenLeavesTheStoreServing) {
  TemporaryDirectory directory;
  makeStore(directory.path() / "store", 3);
  writeFile(directory.path() / "not-a-directory", "a file where the cache directory should be");
  auto store = openFlushed(storeOptions(directory.path() / "store", directory.path() / "not-a-directory"));
  EXPECT_EQ(titles(*store).size(), 3u);
  EXPECT_EQ(store->cacheStatus().writes, 0u);
  EXPECT_FALSE(store->cacheStatus().writeProblem.empty());
}

TEST(VdirCacheTest, ACacheFileSaysWhichRootItServesAndNothingElseIsTakenForOne) {
  TemporaryDirectory directory;
  makeStore(directory.path() / "store", 2);
  auto store = openFlushed(storeOptions(directory.path() / "store", directory.path() / "cache"));
  const std::string bytes = testing::readFile(cacheFileOf(*store));
  const VdirCacheIdentity identity = cacheIdentityOf(bytes);
  EXPECT_EQ(identity.kind, VdirCacheIdentity::Kind::cache);
  EXPECT_EQ(identity.root, fs::canonical(directory.path() / "store").string());
  EXPECT_EQ(cacheIdentityOf(bytes.substr(0, 60)).kind, VdirCacheIdentity::Kind::cutShort);
  EXPECT_EQ(cacheIdentityOf(bytes.substr(0, 10)).kind, VdirCacheIdentity::Kind::cutShort);
  EXPECT_EQ(cacheIdentityOf("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//x//EN\r\n").kind,
            VdirCacheIdentity::Kind::foreign);
  std::string otherFormat = bytes;
  const std::uint32_t format = kVdirCacheFormat - 1;
  std::memcpy(otherFormat.data() + 8, &format, 4);
  EXPECT_EQ(cacheIdentityOf(otherFormat).kind, VdirCacheIdentity::Kind::foreign);
}

// Sets a file's modification time `age` before now.
void ageFile(const fs::path& path, std::chrono::seconds age) {
  fs::last_write_time(path, fs::file_time_type::clock::now() - age);
}

TEST(VdirCacheTest, CachesOfRootsThatAreGoneOfOtherFormatsAndOldLeftoversAreRemoved) {
  TemporaryDirectory directory;
  const fs::path cache = directory.path() / "cache";
  makeStore(directory.path() / "gone", 1);
  makeStore(directory.path() / "kept", 1);
  const std::string gone = cacheFileOf(*openFlushed(storeOptions(directory.path() / "gone", cache)));
  const std::string kept = cacheFileOf(*openFlushed(storeOptions(directory.path() / "kept", cache)));
  fs::remove_all(directory.path() / "gone");
  std::string otherFormat = testing::readFile(kept);
  const std::uint32_t format = kVdirCacheFormat - 1;
  std::memcpy(otherFormat.data() + 8, &format, 4);
  writeFile(cache / "store-0123456789abcdef.cache", otherFormat);
  writeFile(cache / ".store-0123456789abcdef.cache.12-34.tmp", "cut short");
  ageFile(cache / ".store-0123456789abcdef.cache.12-34.tmp", std::chrono::hours(2));
  writeFile(cache / ".store-fedcba9876543210.cache.56-78.tmp", "being written");
  writeFile(cache / "notes.txt", "not ours");

  makeStore(directory.path() / "store", 1);
  auto store = openFlushed(storeOptions(directory.path() / "store", cache));
  EXPECT_EQ(store->cacheStatus().prunedFiles, 3u);
  EXPECT_FALSE(fs::exists(gone));
  EXPECT_FALSE(fs::exists(cache / "store-0123456789abcdef.cache"));
  EXPECT_FALSE(fs::exists(cache / ".store-0123456789abcdef.cache.12-34.tmp"));
  EXPECT_TRUE(fs::exists(cache / ".store-fedcba9876543210.cache.56-78.tmp"));  // maybe still being written
  EXPECT_TRUE(fs::exists(cache / "notes.txt"));
  EXPECT_TRUE(fs::exists(kept));
  EXPECT_TRUE(fs::exists(cacheFileOf(*store)));
  // The next store to open does not look again: its cache is written once the first time.
  auto again = openFlushed(storeOptions(directory.path() / "store", cache));
  EXPECT_EQ(again->cacheStatus().prunedFiles, 0u);
}

TEST(VdirCacheTest, BeyondItsLimitsTheCacheDirectoryKeepsTheNewestCachesAndTheStoresOwn) {
  TemporaryDirectory directory;
  const fs::path cache = directory.path() / "cache";
  std::vector<std::string> caches;
  for (int i = 0; i < 4; ++i) {
    const fs::path root = directory.path() / ("s" + std::to_string(i));
    makeStore(root, 1);
    caches.push_back(cacheFileOf(*openFlushed(storeOptions(root, cache))));
    ageFile(caches.back(), std::chrono::hours(10 - i));  // s3 the newest
  }
  makeStore(directory.path() / "store", 1);
  VdirStoreOptions options = storeOptions(directory.path() / "store", cache);
  options.cacheDirectoryLimits.caches = 3;
  auto store = openFlushed(options);
  EXPECT_EQ(store->cacheStatus().prunedFiles, 2u);
  EXPECT_FALSE(fs::exists(caches[0]));
  EXPECT_FALSE(fs::exists(caches[1]));
  EXPECT_TRUE(fs::exists(caches[2]));
  EXPECT_TRUE(fs::exists(caches[3]));
  EXPECT_TRUE(fs::exists(cacheFileOf(*store)));

  // By size: the store's own counts, and is kept even when it alone is over.
  options.cacheDirectoryLimits = {};
  options.cacheDirectoryLimits.bytes = fs::file_size(cacheFileOf(*store)) + fs::file_size(caches[3]);
  fs::remove(cacheFileOf(*store));
  auto bySize = openFlushed(options);
  EXPECT_EQ(bySize->cacheStatus().prunedFiles, 1u);
  EXPECT_FALSE(fs::exists(caches[2]));
  EXPECT_TRUE(fs::exists(caches[3]));
  options.cacheDirectoryLimits.bytes = 1;
  fs::remove(cacheFileOf(*store));
  auto tiny = openFlushed(options);
  EXPECT_EQ(tiny->cacheStatus().prunedFiles, 1u);
  EXPECT_FALSE(fs::exists(caches[3]));
  EXPECT_TRUE(fs::exists(cacheFileOf(*tiny)));
}

TEST(VdirCacheTest, WithoutACacheDirectoryNothingIsWritten) {
  TemporaryDirectory directory;
  makeStore(directory.path() / "store", 3);
  auto options = storeOptions(directory.path() / "store", directory.path() / "cache");
  options.cacheDirectory = "";
  auto store = openFlushed(options);
  EXPECT_EQ(titles(*store).size(), 3u);
  EXPECT_TRUE(store->cacheStatus().path.empty());
  EXPECT_FALSE(fs::exists(directory.path() / "cache"));
}

}  // namespace
}  // namespace vesp::vdir
