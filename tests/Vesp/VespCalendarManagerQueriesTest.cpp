// The manager's calendar, event and reminder queries.
#include "Vesp/VespCalendarManager.h"

#include "tests/support/ManagerFixture.h"
#include "tests/support/RivetMatchers.h"

namespace vesp {
namespace {

using namespace vesp::testing;
using ::testing::ElementsAre;
using ::testing::Eq;
using rivet::testing::IsRivetFailure;
using rivet::testing::IsRivetSuccess;
using Identifier = VespEventInstanceIdentifier;

constexpr double day = 86400.0;
const Date origin(694224000);  // 2023-01-01 00:00:00 UTC

class VespCalendarManagerQueriesTest : public ManagerFixture {
 protected:
  void SetUp() override { authoriseAll(); }
  std::shared_ptr<memory::MemorySource> source = platform->addSource("Local");
  std::shared_ptr<memory::MemoryCalendar> work = platform->addCalendar("Work", source);
  std::shared_ptr<memory::MemoryCalendar> home = platform->addCalendar("Home", source);
  std::shared_ptr<memory::MemoryCalendar> lists =
      platform->addCalendar("Lists", source, platform::EKEntityMaskReminder);

  std::vector<std::string> titles(const rivet::RivetResult<std::vector<VespEventInstance>>& result) {
    std::vector<std::string> list;
    for (const auto& event : result.value()) list.push_back(event.title());
    return list;
  }
};

TEST_F(VespCalendarManagerQueriesTest, ListsEventCalendarsAndReminderListsFromTheirStores) {
  auto calendars = manager->getAllEventCalendars();
  ASSERT_THAT(calendars, IsRivetSuccess());
  ASSERT_EQ(calendars->size(), 2u);
  EXPECT_EQ((*calendars)[0].title(), "Work");
  auto reminderLists = manager->getAllReminderLists();
  ASSERT_EQ(reminderLists->size(), 1u);
  EXPECT_EQ((*reminderLists)[0].title(), "Lists");
}

TEST_F(VespCalendarManagerQueriesTest, EveryQueryFailsWithItsMessageWhenNotDetermined) {
  setStatus(platform::EKAuthorizationStatusNotDetermined, platform::EKAuthorizationStatusNotDetermined);
  expectLink(manager->getAllEventCalendars().error(), "Not authorised to query events", {"self"},
             "getAllEventCalendars()", 659);
  expectLink(manager->getAllReminderLists().error(), "Not authorised to query reminders", {"self"},
             "getAllReminderLists()", 670);
  expectLink(manager->getEventInstances(origin, origin, VespCalendarQuery::all()).error(),
             "Not authorised to query events", {"self"}, "getEventInstances(startDateInc:endDateEx:calendars:)", 699);
  auto instance = manager->getEventInstance(Identifier::noOccurrenceDate("E"));
  expectLink(instance.error(), "Not authorised to query events", {"self", "eventInstanceIdentifier"},
             "getEventInstance(eventInstanceIdentifier:)", 684);
  expectLink(*instance.error().cause(), "Not authorised to query events", {"eventInstanceIdentifier"},
             "getEventStoreEventInstance(eventInstanceIdentifier:)", 571);
  expectLink(manager->getReminders(origin, origin, VespCalendarQuery::all()).error(),
             "Not authorised to query reminders", {"self"}, "getReminders(startDateInc:endDateEx:calendars:)", 749);
  auto reminder = manager->getReminder("item");
  expectLink(reminder.error(), "Not authorised to query reminders", {"self", "calendarItemIdentifier"},
             "getReminder(calendarItemIdentifier:)", 734);
  expectLink(*reminder.error().cause(), "Not authorised to query reminders", {"calendarItemIdentifier"},
             "getEventStoreReminder(calendarItemIdentifier:)", 629);
  EXPECT_TRUE(platform->world()->accessRequests().empty());
}

TEST_F(VespCalendarManagerQueriesTest, EventInstancesComeFromThePlatformInItsOrder) {
  platform->addEvent(work, "second", origin.addingTimeInterval(7200), origin.addingTimeInterval(9000));
  platform->addEvent(home, "first", origin, origin.addingTimeInterval(1800));
  auto all = manager->getEventInstances(origin, origin.addingTimeInterval(day), VespCalendarQuery::all());
  EXPECT_THAT(titles(all), ElementsAre("first", "second"));
  auto some = manager->getEventInstances(origin, origin.addingTimeInterval(day),
                                         VespCalendarQuery::some({work->calendarIdentifier(), "unknown"}));
  EXPECT_THAT(titles(some), ElementsAre("second"));
}

TEST_F(VespCalendarManagerQueriesTest, SomeWithNoMatchingCalendarPassesAnEmptyListNotAll) {
  platform->addEvent(work, "event", origin, origin.addingTimeInterval(1800));
  for (const auto& query : {VespCalendarQuery::some({}), VespCalendarQuery::some({"unknown"}),
                            VespCalendarQuery::some({lists->calendarIdentifier()})}) {
    auto result = manager->getEventInstances(origin, origin.addingTimeInterval(day), query);
    ASSERT_THAT(result, IsRivetSuccess());
    EXPECT_TRUE(result->empty()) << query;
  }
}

TEST_F(VespCalendarManagerQueriesTest, AllOnAnEmptyStoreIsAnEmptySuccess) {
  auto result = manager->getEventInstances(origin, origin.addingTimeInterval(day), VespCalendarQuery::all());
  ASSERT_THAT(result, IsRivetSuccess());
  EXPECT_TRUE(result->empty());
}

TEST_F(VespCalendarManagerQueriesTest, NoOccurrenceDateAnswersTheNaiveEventWithoutSearching) {
  auto series = platform->addEvent(work, "daily", origin.addingTimeInterval(3 * day), origin.addingTimeInterval(3 * day + 900));
  platform->addOccurrence(series, origin);
  auto found = manager->getEventInstance(Identifier::noOccurrenceDate(*series->eventIdentifier()));
  ASSERT_THAT(found, IsRivetSuccess());
  EXPECT_EQ(found->originalOccurrenceDate(), origin);  // the earliest, as the store answers
}

TEST_F(VespCalendarManagerQueriesTest, AnOccurrenceSixDaysAwayIsFoundInTheWeekSpan) {
  auto series = platform->addEvent(work, "weekly", origin, origin.addingTimeInterval(900));
  auto later = platform->addOccurrence(series, origin.addingTimeInterval(6 * day));
  auto found = manager->getEventInstance(Identifier::withOccurrenceDate(*series->eventIdentifier(),
                                                                        origin.addingTimeInterval(6 * day)));
  ASSERT_THAT(found, IsRivetSuccess());
  EXPECT_EQ(found->originalOccurrenceDate(), origin.addingTimeInterval(6 * day));
  EXPECT_EQ(found->eventInstanceIdentifier().originalOccurrenceDate(), later->occurrenceDate());
}

TEST_F(VespCalendarManagerQueriesTest, AnOccurrenceFourHundredDaysAwayIsNeverFound) {
  auto series = platform->addEvent(work, "yearly", origin, origin.addingTimeInterval(900));
  platform->addOccurrence(series, origin.addingTimeInterval(400 * day));
  // Searching around a date with no occurrence within 365 days.
  auto wanted = Identifier::withOccurrenceDate(*series->eventIdentifier(), origin.addingTimeInterval(800 * day));
  auto result = manager->getEventInstance(wanted);
  ASSERT_FALSE(result.has_value());
  expectLink(result.error(), "Cannot find specified recurrence instance", {"self", "eventInstanceIdentifier"},
             "getEventInstance(eventInstanceIdentifier:)", 684);
  expectLink(*result.error().cause(), "Cannot find specified recurrence instance",
             {"eventInstanceIdentifier", "naiveEventStoreEvent", "eventIdentifier", "originalOccurrenceDate"},
             "getEventStoreEventInstance(eventInstanceIdentifier:)", 611);
}

TEST_F(VespCalendarManagerQueriesTest, OccurrenceDatesMustMatchExactly) {
  auto series = platform->addEvent(work, "daily", origin, origin.addingTimeInterval(900));
  auto result = manager->getEventInstance(
      Identifier::withOccurrenceDate(*series->eventIdentifier(), origin.addingTimeInterval(0.25)));
  EXPECT_THAT(result, IsRivetFailure(Eq("Cannot find specified recurrence instance")));
}

TEST_F(VespCalendarManagerQueriesTest, AnEventWithoutCalendarStopsTheRecurrenceSearch) {
  memory::MemoryEventFields fields;
  fields.eventIdentifier = "orphan";
  fields.occurrenceDate = origin;
  platform->addEvent(fields);
  EXPECT_DEATH((void)manager->getEventInstance(Identifier::withOccurrenceDate("orphan", origin)),
               "the event being searched for has no calendar");
}

TEST_F(VespCalendarManagerQueriesTest, AnUnknownEventIsNoSuchEvent) {
  auto result = manager->getEventInstance(Identifier::noOccurrenceDate("nothing"));
  ASSERT_FALSE(result.has_value());
  expectLink(*result.error().cause(), "No such event", {"eventInstanceIdentifier"},
             "getEventStoreEventInstance(eventInstanceIdentifier:)", 580);
}

platform::DateComponents dueOn(int dayOfMonth) {
  platform::DateComponents components;
  components.year = 2023;
  components.month = 1;
  components.day = dayOfMonth;
  return components;
}

class VespCalendarManagerRemindersTest : public VespCalendarManagerQueriesTest {
 protected:
  void SetUp() override {
    VespCalendarManagerQueriesTest::SetUp();
    platform->addReminder(lists, "open", dueOn(2));
    auto done = platform->addReminder(lists, "done", dueOn(3));
    done->update([](memory::MemoryReminderFields& f) {
      f.isCompleted = true;
      f.completionDate = origin.addingTimeInterval(day);
    });
  }
  std::vector<std::string> reminderTitles(const VespCalendarQuery& query = VespCalendarQuery::all()) {
    auto result = manager->getReminders(origin, origin.addingTimeInterval(7 * day), query);
    EXPECT_THAT(result, IsRivetSuccess());
    std::vector<std::string> list;
    for (const auto& reminder : result.value()) list.push_back(reminder.title());
    return list;
  }
};

// A dispatch group whose time runs out as soon as every delivery that is due has been made, so
// that a test need not wait five seconds for a fetch that is held back.
class ImpatientGroup : public rivet::RivetDispatchGroup {
 public:
  ImpatientGroup(std::shared_ptr<MemoryPlatform> platform, std::shared_ptr<std::vector<double>> timeouts)
      : platform_(std::move(platform)), timeouts_(std::move(timeouts)) {}
  rivet::RivetResult<void> wait(std::optional<double> timeout) override {
    timeouts_->push_back(timeout.value_or(-1));
    platform_->waitForDeliveries();
    return RivetDispatchGroup::wait(0.0);
  }

 private:
  std::shared_ptr<MemoryPlatform> platform_;
  std::shared_ptr<std::vector<double>> timeouts_;
};

class ImpatientPlatform : public platform::PlatformWrapper {
 public:
  explicit ImpatientPlatform(std::shared_ptr<MemoryPlatform> memory) : PlatformWrapper(memory), memory_(memory) {}
  std::shared_ptr<rivet::RivetDispatchGroup> dispatch_group_create() override {
    return std::make_shared<ImpatientGroup>(memory_, timeouts);
  }
  std::shared_ptr<std::vector<double>> timeouts = std::make_shared<std::vector<double>>();

 private:
  std::shared_ptr<MemoryPlatform> memory_;
};

TEST_F(VespCalendarManagerRemindersTest, BothFetchesInTimeGiveIncompleteThenCompleted) {
  platform->world()->scriptReminderFetches({memory::MemoryFetchScript{memory::MemoryDelivery::after(0.05), false},
                                            memory::MemoryFetchScript{memory::MemoryDelivery::immediately(), false}});
  EXPECT_THAT(reminderTitles(), ElementsAre("open", "done"));
}

TEST_F(VespCalendarManagerRemindersTest, NeitherFetchInTimeIsAnEmptySuccess) {
  auto impatient = std::make_shared<ImpatientPlatform>(platform);
  manager = VespCalendarManager::make(logger, impatient);
  platform->world()->setDefaultFetchScript(memory::MemoryFetchScript{memory::MemoryDelivery::held(), false});
  EXPECT_TRUE(reminderTitles().empty());
  EXPECT_THAT(*impatient->timeouts, ElementsAre(5.0));
  // The late completions still write their cells and leave the group, unread.
  EXPECT_EQ(platform->releaseHeldDeliveries(), 2u);
  platform->waitForDeliveries();
}

TEST_F(VespCalendarManagerRemindersTest, OnlyTheCompletedFetchInTimeGivesOnlyCompleted) {
  auto impatient = std::make_shared<ImpatientPlatform>(platform);
  manager = VespCalendarManager::make(logger, impatient);
  platform->world()->scriptReminderFetches({memory::MemoryFetchScript{memory::MemoryDelivery::held(), false},
                                            memory::MemoryFetchScript{memory::MemoryDelivery::immediately(), false}});
  EXPECT_THAT(reminderTitles(), ElementsAre("done"));
  EXPECT_EQ(platform->releaseHeldDeliveries(), 1u);
  platform->waitForDeliveries();
}

TEST_F(VespCalendarManagerRemindersTest, AFetchDeliveringNothingCountsAsEmpty) {
  platform->world()->scriptReminderFetches({memory::MemoryFetchScript{memory::MemoryDelivery::immediately(), true},
                                            memory::MemoryFetchScript{memory::MemoryDelivery::immediately(), false}});
  EXPECT_THAT(reminderTitles(), ElementsAre("done"));
}

TEST_F(VespCalendarManagerRemindersTest, SomeIsMatchedAgainstEventCalendarsNotReminderLists) {
  EXPECT_TRUE(reminderTitles(VespCalendarQuery::some({lists->calendarIdentifier()})).empty());
}

TEST_F(VespCalendarManagerRemindersTest, GetReminderFindsAReminderAndRefusesAnEvent) {
  auto reminder = platform->world()->reminders().front();
  auto found = manager->getReminder(reminder->calendarItemIdentifier());
  ASSERT_THAT(found, IsRivetSuccess());
  EXPECT_EQ(found->title(), "open");
  auto event = platform->addEvent(work, "event", origin, origin.addingTimeInterval(900));
  auto refused = manager->getReminder(event->calendarItemIdentifier());
  ASSERT_FALSE(refused.has_value());
  expectLink(refused.error(), "No such reminder", {"self", "calendarItemIdentifier"},
             "getReminder(calendarItemIdentifier:)", 734);
  expectLink(*refused.error().cause(), "No such reminder", {"calendarItemIdentifier"},
             "getEventStoreReminder(calendarItemIdentifier:)", 638);
}

}  // namespace
}  // namespace vesp
