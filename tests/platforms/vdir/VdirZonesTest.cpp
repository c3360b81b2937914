// The store's time zones: zone definitions shared between files, and look-ups of libical's
// built-in zones from many threads at once (its table of them is process-wide and unguarded).
#include "platforms/vdir/VdirZones.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

#include "platforms/vdir/VdirStore.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::TemporaryDirectory;

TEST(VdirZonesTest, BuiltinZoneLookupsFromManyThreadsAgree) {
  const auto aliases = testing::zoneAliases(400);
  ASSERT_GE(aliases.size(), 40u);
  std::vector<std::string> names = aliases;
  for (const char* listed : {"Europe/Berlin", "America/New_York", "Asia/Kolkata", "Australia/Sydney"}) names.push_back(listed);
  constexpr int kThreads = 8;
  std::vector<std::vector<icaltimezone*>> seen(kThreads, std::vector<icaltimezone*>(names.size()));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      std::vector<std::size_t> order(names.size());
      for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
      std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(t)));
      for (std::size_t i : order) seen[t][i] = builtinZone(names[i]);
    });
  for (auto& thread : threads) thread.join();
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_NE(seen[0][i], nullptr) << names[i];
    for (int t = 1; t < kThreads; ++t) EXPECT_EQ(seen[t][i], seen[0][i]) << names[i];
  }
  EXPECT_EQ(builtinZone("No/Such_Zone"), nullptr);
  EXPECT_EQ(builtinZone(""), nullptr);
}

TEST(VdirZonesTest, TheUtcZoneIsOneZoneForEveryThread) {
  std::vector<icaltimezone*> seen(8);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < seen.size(); ++t) threads.emplace_back([&, t] { seen[t] = utcZone(); });
  for (auto& thread : threads) thread.join();
  for (auto* zone : seen) EXPECT_EQ(zone, icaltimezone_get_utc_timezone());
}

// Cold opens on every core at once, several stores at a time, of many one-event collections
// whose zones libical must load by name: every store serves every zone.
TEST(VdirZonesTest, ParallelColdOpensOfManySmallCollectionsAgree) {
  TemporaryDirectory root;
  const auto aliases = testing::zoneAliases(181);
  ASSERT_GE(aliases.size(), 40u);
  testing::writeZoneAliasStore(root.path(), aliases);
  constexpr int kStores = 4;
  for (int round = 0; round < 3; ++round) {
    std::vector<std::size_t> counts(kStores);
    std::vector<std::size_t> unknownZones(kStores);
    std::vector<std::thread> threads;
    for (int s = 0; s < kStores; ++s)
      threads.emplace_back([&, s] {
        VdirStoreOptions options;
        options.root = root.path().string();
        options.localTimeZone = "Europe/Berlin";
        options.watch = false;
        options.cacheDirectory = "";
        options.parseThreads = 4;
        auto store = VdirStore::make(options);
        counts[s] = store->events(testing::utc(2026, 1, 1), testing::utc(2026, 3, 1), std::nullopt).size();
        for (const auto& diagnostic : store->diagnostics())
          if (diagnostic.problem.find("unknown time zone") != std::string::npos) ++unknownZones[s];
      });
    for (auto& thread : threads) thread.join();
    for (int s = 0; s < kStores; ++s) {
      EXPECT_EQ(counts[s], aliases.size() * 7) << "store " << s << " of round " << round;
      EXPECT_EQ(unknownZones[s], 0u) << "store " << s << " of round " << round;
    }
  }
}


}  // namespace
}  // namespace vesp::vdir
