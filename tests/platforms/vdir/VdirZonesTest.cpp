// The store's time zones: zone definitions shared between files, and look-ups of libical's
// built-in zones from many threads at once (its table of them is process-wide and unguarded).
#include "platforms/vdir/VdirZones.h"

#include <gmock/gmock.h>
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


const std::string kZoneA =
    "BEGIN:VTIMEZONE\r\nTZID:Zone A\r\nBEGIN:STANDARD\r\nDTSTART:19700101T000000\r\n"
    "TZOFFSETFROM:+0300\r\nTZOFFSETTO:+0300\r\nEND:STANDARD\r\nEND:VTIMEZONE";
const std::string kZoneB =
    "BEGIN:VTIMEZONE\nTZID:Zone B\nBEGIN:STANDARD\nDTSTART:19700101T000000\n"
    "TZOFFSETFROM:-0500\nTZOFFSETTO:-0500\nEND:STANDARD\nEND:VTIMEZONE";
const std::string kEvent = "BEGIN:VEVENT\r\nUID:e\r\nDTSTART;TZID=Zone A:20260110T090000\r\nEND:VEVENT\r\n";

TEST(VdirZonesTest, WrittenZonesAreTheDefinitionsDirectlyInACalendarWithTheirTextAndLines) {
  const std::string head = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n";
  const std::string text = head + kZoneA + "\r\n" + kEvent + kZoneB + "\n" + "END:VCALENDAR";
  const auto zones = writtenZones(text);
  ASSERT_EQ(zones.size(), 2u);
  EXPECT_EQ(zones[0].tzid, "Zone A");
  EXPECT_EQ(zones[0].text, kZoneA);
  EXPECT_EQ(zones[0].from, head.size());
  EXPECT_EQ(zones[0].to, head.size() + kZoneA.size() + 2);
  EXPECT_EQ(zones[1].tzid, "Zone B");
  EXPECT_EQ(zones[1].text, kZoneB);
  EXPECT_EQ(text.substr(zones[1].to), "END:VCALENDAR");
  // A whole zone in a file that ends early is still one (the file's END lines are added when read).
  const auto early = writtenZones(head + kZoneA);
  ASSERT_EQ(early.size(), 1u);
  EXPECT_EQ(early[0].text, kZoneA);
  EXPECT_EQ(early[0].to, head.size() + kZoneA.size());
  EXPECT_THAT(writtenZones(head + kZoneA.substr(0, kZoneA.size() - 4)), ::testing::IsEmpty());
}

TEST(VdirZonesTest, AnythingThatTheParserCouldReadOtherwiseGivesNoWrittenZones) {
  const std::string head = "BEGIN:VCALENDAR\r\n", tail = "END:VCALENDAR\r\n";
  auto with = [&](std::string zone, std::string_view from, std::string_view to) {
    return zone.replace(zone.find(from), from.size(), to);
  };
  ASSERT_EQ(writtenZones(head + kZoneA + "\r\n" + tail).size(), 1u);
  const std::vector<std::pair<std::string, std::string>> others = {
      {"a folded BEGIN line", head + with(kZoneA, "BEGIN:STANDARD", "BEGIN:STAN\r\n DARD") + "\r\n" + tail},
      {"a BEGIN line in small letters", head + with(kZoneA, "BEGIN:STANDARD", "begin:STANDARD") + "\r\n" + tail},
      {"a component name in small letters", head + with(kZoneA, "BEGIN:VTIMEZONE", "BEGIN:vtimezone") + "\r\n" + tail},
      {"a BEGIN line with a parameter", head + with(kZoneA, "BEGIN:STANDARD", "BEGIN;X=1:STANDARD") + "\r\n" + tail},
      {"an END that closes another component", head + with(kZoneA, "END:STANDARD", "END:DAYLIGHT") + "\r\n" + tail},
      {"a folded TZID", head + with(kZoneA, "TZID:Zone A", "TZID:Zone\r\n  A") + "\r\n" + tail},
      {"a TZID with a parameter", head + with(kZoneA, "TZID:Zone A", "TZID;X=1:Zone A") + "\r\n" + tail},
      {"a TZID in small letters", head + with(kZoneA, "TZID:Zone A", "tzid:Zone A") + "\r\n" + tail},
      {"a TZID with an escape", head + with(kZoneA, "TZID:Zone A", "TZID:Zone\\, A") + "\r\n" + tail},
      {"two TZIDs", head + with(kZoneA, "TZID:Zone A", "TZID:Zone A\r\nTZID:Zone C") + "\r\n" + tail},
      {"no TZID", head + with(kZoneA, "TZID:Zone A\r\n", "") + "\r\n" + tail},
      {"two zones of one TZID", head + kZoneA + "\r\n" + kZoneA + "\r\n" + tail},
  };
  for (const auto& [what, text] : others) EXPECT_THAT(writtenZones(text), ::testing::IsEmpty()) << what;
  // Zones not directly in a VCALENDAR, and zone lines inside a value, are not the file's zones.
  EXPECT_THAT(writtenZones(kZoneA + "\r\n"), ::testing::IsEmpty());
  EXPECT_THAT(writtenZones("BEGIN:VEVENT\r\n" + kZoneA + "\r\nEND:VEVENT\r\n"), ::testing::IsEmpty());
  EXPECT_THAT(writtenZones(head + "BEGIN:VEVENT\r\n" + kZoneA + "\r\nEND:VEVENT\r\n" + tail), ::testing::IsEmpty());
  const std::string inDescription = head + "BEGIN:VEVENT\r\nDESCRIPTION:BEGIN:VTIMEZONE\r\nEND:VEVENT\r\n" + kZoneA +
                                    "\r\n" + tail;
  const auto zones = writtenZones(inDescription);
  ASSERT_EQ(zones.size(), 1u);
  EXPECT_EQ(zones[0].text, kZoneA);
}

}  // namespace
}  // namespace vesp::vdir
