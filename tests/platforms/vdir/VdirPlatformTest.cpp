// The calendar manager over the vdir platform: occurrence identifiers that find their occurrence
// again, store changes on the manager's buses, reminders.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>

#include "Vesp/VespCalendarManager.h"
#include "Vesp/VespJSONCoder.h"
#include "support/rivet/RivetRecordingLogger.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using platform::Date;
using testing::TemporaryDirectory;
using testing::testData;
using testing::utc;
namespace fs = std::filesystem;

// A manager over a vdir platform whose user has already granted access to both kinds.
struct ManagerOverVdir {
  explicit ManagerOverVdir(const fs::path& root, bool watch = false) {
    testing::writeFile(config.path() / "access.json",
                       R"({"version": 1, "applications": {"vesp": {"events": "authorized", "reminders": "authorized"}}})");
    platform = VdirPlatform::make(testing::platformOptions(root, config.path() / "access.json", watch));
    for (const char* key : {"NSCalendarsUsageDescription", "NSRemindersUsageDescription", "NSContactsUsageDescription"})
      platform->setInfoDictionaryValue(key, platform::AnyObject("tests"));
    manager = VespCalendarManager::make(logger, platform);
    EXPECT_TRUE(manager->applicationDidBecomeActive(impetus).has_value());
    EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::authorised);
  }
  ~ManagerOverVdir() { (void)manager->applicationDidEnterBackground(impetus); }

  TemporaryDirectory config;
  std::shared_ptr<VdirPlatform> platform;
  std::shared_ptr<rivet::RivetRecordingLogger> logger = std::make_shared<rivet::RivetRecordingLogger>();
  std::shared_ptr<VespCalendarManager> manager;
  rivet::RivetImpetus impetus{"test", std::nullopt, "VdirPlatformTest", "test()", 1};
};

TEST(VdirPlatformTest, AMovedOccurrenceIsFoundAgainByItsIdentifier) {
  ManagerOverVdir world(testData("series"));
  auto march = world.manager->getEventInstances(utc(2026, 3, 1), utc(2026, 4, 1), VespCalendarQuery::all());
  ASSERT_TRUE(march.has_value());
  std::optional<VespEventInstance> moved;
  for (const auto& instance : *march)
    if (instance.isDetached()) moved = instance;
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved->title(), "Jour fixe (moved in)");
  EXPECT_EQ(moved->eventInstanceIdentifier(),
            VespEventInstanceIdentifier("cal/moved.ics", utc(2026, 5, 7, 12)));
  // Through the identifier's coded form, as a host would keep it.
  std::string coded = VespJSONEncoder().encode(moved->eventInstanceIdentifier());
  auto again = world.manager->getEventInstance(VespJSONDecoder().decode<VespEventInstanceIdentifier>(coded));
  ASSERT_TRUE(again.has_value()) << again.error().description();
  EXPECT_EQ(*again, *moved);
}

TEST(VdirPlatformTest, AnOccurrenceMovedAwayIsFoundByItsOriginalDate) {
  ManagerOverVdir world(testData("series"));
  auto moved = world.manager->getEventInstance(VespEventInstanceIdentifier("cal/moved.ics", utc(2026, 3, 12, 13)));
  ASSERT_TRUE(moved.has_value()) << moved.error().description();
  EXPECT_EQ(moved->title(), "Jour fixe (moved out)");
  EXPECT_EQ(moved->startDate(), utc(2026, 4, 20, 12));
}

TEST(VdirPlatformTest, AnIdentifierOfNoOccurrenceIsAFailureNotAnotherOccurrence) {
  ManagerOverVdir world(testData("series"));
  // Thursdays only: a Friday is no occurrence of the series.
  auto missing = world.manager->getEventInstance(VespEventInstanceIdentifier("cal/moved.ics", utc(2026, 3, 13, 13)));
  ASSERT_FALSE(missing.has_value());
  EXPECT_EQ(missing.error().message(), "Cannot find specified recurrence instance");
  auto unknown = world.manager->getEventInstance(VespEventInstanceIdentifier("cal/none.ics", std::nullopt));
  ASSERT_FALSE(unknown.has_value());
  EXPECT_EQ(unknown.error().message(), "No such event");
}

TEST(VdirPlatformTest, EveryOccurrenceOfAYearInAGeneratedStoreResolvesToAnEqualRecord) {
  TemporaryDirectory generated;
  fs::path root = generated.path() / "store";
  std::string command = "python3 '" + std::string(VESP_GEN_VDIR) + "' --root '" + root.string() +
                        "' --events 1000 --todos 100 --seed 7 --overrides-fraction 0.1 > /dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);
  ManagerOverVdir world(root);
  auto year = world.manager->getEventInstances(utc(2026, 1, 1), utc(2027, 1, 1), VespCalendarQuery::all());
  ASSERT_TRUE(year.has_value());
  ASSERT_GT(year->size(), 1000u);
  std::size_t detached = 0;
  for (const auto& instance : *year) {
    if (instance.isDetached()) ++detached;
    auto again = world.manager->getEventInstance(instance.eventInstanceIdentifier());
    ASSERT_TRUE(again.has_value()) << instance.eventIdentifier() << ": " << again.error().description();
    EXPECT_EQ(*again, instance) << instance.eventIdentifier();
  }
  EXPECT_GT(detached, 0u);
}

TEST(VdirPlatformTest, AChangedFileReachesTheManagersBusWithinASecond) {
  TemporaryDirectory root;
  testing::writeFile(root.path() / "c/a.ics", testing::simpleEvent("a", "Before", "20260310T090000Z", "20260310T100000Z"));
  ManagerOverVdir world(root.path(), true);
  std::mutex mutex;
  std::condition_variable delivered;
  int events = 0;
  auto subscription = world.manager->eventStoreChangedEventBus().subscribe(
      [&](const VespEventStoreChangedEvent&, const rivet::RivetVia&) {
        std::lock_guard lock(mutex);
        ++events;
        delivered.notify_all();
      });
  testing::writeFile(root.path() / "c/a.ics", testing::simpleEvent("a", "After", "20260310T090000Z", "20260310T100000Z"));
  {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(delivered.wait_for(lock, std::chrono::seconds(1), [&] { return events > 0; }));
  }
  subscription.cancel();
  auto instances = world.manager->getEventInstances(utc(2026, 3, 10), utc(2026, 3, 11), VespCalendarQuery::all());
  ASSERT_TRUE(instances.has_value());
  ASSERT_EQ(instances->size(), 1u);
  EXPECT_EQ((*instances)[0].title(), "After");
}

TEST(VdirPlatformTest, RemindersOfAPeriodAndOneReminderByIdentifier) {
  ManagerOverVdir world(testData("mapping"));
  auto reminders = world.manager->getReminders(utc(2026, 3, 1), utc(2026, 3, 12), VespCalendarQuery::all());
  ASSERT_TRUE(reminders.has_value()) << reminders.error().description();
  std::set<std::string> titles;
  for (const auto& reminder : *reminders) titles.insert(reminder.title());
  EXPECT_THAT(titles, ::testing::ElementsAre("Buy milk", "Call back", "File taxes"));
  auto milk = world.manager->getReminder("tasks/due-date.ics");
  ASSERT_TRUE(milk.has_value());
  EXPECT_EQ(milk->title(), "Buy milk");
  EXPECT_FALSE(world.manager->getReminder("tasks/none.ics").has_value());
}

TEST(VdirPlatformTest, CalendarsAndListsAreTheCollections) {
  ManagerOverVdir world(testData("mapping"));
  auto calendars = world.manager->getAllEventCalendars();
  ASSERT_TRUE(calendars.has_value());
  ASSERT_EQ(calendars->size(), 1u);
  EXPECT_EQ((*calendars)[0].title(), "Home");
  auto lists = world.manager->getAllReminderLists();
  ASSERT_TRUE(lists.has_value());
  ASSERT_EQ(lists->size(), 1u);
  EXPECT_EQ((*lists)[0].calendarIdentifier(), "tasks");
}

}  // namespace
}  // namespace vesp::vdir
