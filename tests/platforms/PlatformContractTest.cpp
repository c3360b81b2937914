// What every platform we serve promises the library, run over each of them: the memory platform and
// the vdir platform over a tree on disk. Each world holds the same contents: calendars "Work" and
// "Home", the event "Standup" [10:00, 11:00) and the instant "Ping" at 12:00 in Work, "Dinner"
// [18:00, 19:00) in Home, all on 2 March 2026 (UTC), the reminder list "Tasks" with the reminder
// "Water plants", and access granted to both kinds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platforms/memory/MemoryPlatform.h"
#include "platforms/vdir/VdirPlatform.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp {
namespace {

using platform::Date;
using vdir::testing::utc;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
namespace fs = std::filesystem;

struct MemoryWorld {
  static constexpr const char* name = "Memory";
  static const std::string& errorDomain() { return memory::MemoryErrorDomain; }
  MemoryWorld() {
    auto source = memory->addSource("Local");
    auto work = memory->addCalendar("Work", source);
    auto home = memory->addCalendar("Home", source);
    memory->addEvent(work, "Standup", utc(2026, 3, 2, 10), utc(2026, 3, 2, 11));
    memory->addEvent(work, "Ping", utc(2026, 3, 2, 12), utc(2026, 3, 2, 12));
    memory->addEvent(home, "Dinner", utc(2026, 3, 2, 18), utc(2026, 3, 2, 19));
    memory->addReminder(memory->addCalendar("Tasks", source, platform::EKEntityMaskReminder), "Water plants");
    memory->setAuthorizationStatus(platform::EKEntityTypeEvent, platform::EKAuthorizationStatusAuthorized);
    memory->setAuthorizationStatus(platform::EKEntityTypeReminder, platform::EKAuthorizationStatusAuthorized);
  }
  std::shared_ptr<platform::Platform> platform() { return memory; }
  // The contents change, and the platform announces it as it does.
  void change() {
    memory->addEvent(memory->addCalendar("Later", memory->addSource("Local")), "New", utc(2026, 3, 3),
                     utc(2026, 3, 3, 1));
    memory->postStoreChanged();
  }

  std::shared_ptr<memory::MemoryPlatform> memory = memory::MemoryPlatform::make();
};

struct VdirWorld {
  static constexpr const char* name = "Vdir";
  static const std::string& errorDomain() { return vdir::VdirErrorDomain; }
  VdirWorld() {
    using vdir::testing::simpleEvent;
    using vdir::testing::writeFile;
    writeFile(root.path() / "work/standup.ics",
              simpleEvent("standup", "Standup", "20260302T100000Z", "20260302T110000Z"));
    writeFile(root.path() / "work/ping.ics", simpleEvent("ping", "Ping", "20260302T120000Z", "20260302T120000Z"));
    writeFile(root.path() / "home/dinner.ics",
              simpleEvent("dinner", "Dinner", "20260302T180000Z", "20260302T190000Z"));
    writeFile(root.path() / "tasks/water.ics",
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VTODO\r\nUID:water\r\n"
              "DTSTAMP:20260101T000000Z\r\nSUMMARY:Water plants\r\nEND:VTODO\r\nEND:VCALENDAR\r\n");
    writeFile(root.path() / "tasks/displayname", "Tasks");
    writeFile(root.path() / "work/displayname", "Work");
    writeFile(root.path() / "home/displayname", "Home");
    writeFile(config.path() / "access.json",
              R"({"version": 1, "applications": {"vesp": {"events": "authorized", "reminders": "authorized"}}})");
    auto options = vdir::testing::platformOptions(root.path(), config.path() / "access.json");
    options.store.cacheDirectory = "";
    vdirPlatform = vdir::VdirPlatform::make(std::move(options));
  }
  std::shared_ptr<platform::Platform> platform() { return vdirPlatform; }
  void change() {
    vdir::testing::writeFile(root.path() / "later/new.ics",
                             vdir::testing::simpleEvent("new", "New", "20260303T000000Z", "20260303T010000Z"));
    ASSERT_TRUE(vdirPlatform->refresh());
  }

  vdir::testing::TemporaryDirectory root, config;
  std::shared_ptr<vdir::VdirPlatform> vdirPlatform;
};

struct WorldNames {
  template <class World>
  static std::string GetName(int) {
    return World::name;
  }
};

template <class World>
class PlatformContractTest : public ::testing::Test {
 protected:
  World world;
  std::shared_ptr<platform::EKEventStore> store = world.platform()->makeEventStore();

  std::vector<std::string> titles(Date start, Date end, const platform::EKEventStore::CalendarList& calendars) {
    std::vector<std::string> found;
    for (const auto& event : store->eventsMatchingPredicate(store->predicateForEventsWithStartDate(start, end, calendars)))
      found.push_back(event->title().value_or("(none)"));
    return found;
  }
  std::vector<std::shared_ptr<platform::EKEvent>> events(Date start, Date end) {
    return store->eventsMatchingPredicate(store->predicateForEventsWithStartDate(start, end, std::nullopt));
  }
  std::shared_ptr<platform::EKEvent> only(Date start, Date end) {
    auto found = events(start, end);
    EXPECT_EQ(found.size(), 1u);
    return found.empty() ? nullptr : found.front();
  }
  // The error's code, when it is of the world's domain.
  static std::optional<std::int64_t> codeOf(const std::optional<platform::NSError>& error) {
    if (!error) return std::nullopt;
    EXPECT_EQ(error->domain(), World::errorDomain());
    EXPECT_FALSE(error->localizedDescription().empty());
    return error->code();
  }
  std::shared_ptr<platform::EKCalendar> calendarTitled(const std::string& title,
                                                       platform::EKEntityType type = platform::EKEntityTypeEvent) {
    for (auto& calendar : store->calendarsForEntityType(type))
      if (calendar->title() == title) return calendar;
    ADD_FAILURE() << "no calendar " << title;
    return nullptr;
  }
  std::shared_ptr<platform::EKReminder> reminderNamed(const std::shared_ptr<platform::EKEventStore>& from,
                                                      const std::string& identifier) {
    return std::dynamic_pointer_cast<platform::EKReminder>(from->calendarItemWithIdentifier(identifier));
  }
};

using Worlds = ::testing::Types<MemoryWorld, VdirWorld>;
TYPED_TEST_SUITE(PlatformContractTest, Worlds, WorldNames);

TYPED_TEST(PlatformContractTest, AWindowSelectsWhatOverlapsItsStartInclusiveEndExclusive) {
  EXPECT_THAT(this->titles(utc(2026, 3, 2, 9), utc(2026, 3, 2, 10), std::nullopt), IsEmpty());
  EXPECT_THAT(this->titles(utc(2026, 3, 2, 10, 59, 59), utc(2026, 3, 2, 11), std::nullopt), ElementsAre("Standup"));
  EXPECT_THAT(this->titles(utc(2026, 3, 2, 11), utc(2026, 3, 2, 12), std::nullopt), IsEmpty());
  // An instant is selected by the windows that contain its start.
  EXPECT_THAT(this->titles(utc(2026, 3, 2, 12), utc(2026, 3, 2, 12, 0, 1), std::nullopt), ElementsAre("Ping"));
  EXPECT_THAT(this->titles(utc(2026, 3, 2), utc(2026, 3, 3), std::nullopt),
              UnorderedElementsAre("Standup", "Ping", "Dinner"));
}

TYPED_TEST(PlatformContractTest, AnAbsentCalendarListIsEveryCalendarAndAnEmptyOneNone) {
  const Date start = utc(2026, 3, 2), end = utc(2026, 3, 3);
  EXPECT_EQ(this->titles(start, end, std::nullopt).size(), 3u);
  EXPECT_THAT(this->titles(start, end, std::vector<std::shared_ptr<platform::EKCalendar>>{}), IsEmpty());
  EXPECT_THAT(this->titles(start, end, std::vector{this->calendarTitled("Home")}), ElementsAre("Dinner"));
}

TYPED_TEST(PlatformContractTest, AnEventsCalendarIsTheObjectTheStoreListsForIt) {
  auto work = this->calendarTitled("Work");
  ASSERT_TRUE(work);
  auto store = this->store;
  auto events =
      store->eventsMatchingPredicate(store->predicateForEventsWithStartDate(utc(2026, 3, 2, 10), utc(2026, 3, 2, 11),
                                                                             std::nullopt));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]->calendar(), work);
  EXPECT_EQ(this->calendarTitled("Work"), work);
}

// Waits for a completion and records how often and where it was called.
struct CompletionProbe {
  std::mutex mutex;
  std::condition_variable called;
  int calls = 0;
  std::thread::id thread;
  void record() {
    std::lock_guard lock(mutex);
    ++calls;
    thread = std::this_thread::get_id();
    called.notify_all();
  }
  // True when the first call came within ten seconds; then waits a little for a wrong second one.
  bool awaitOnce() {
    std::unique_lock lock(mutex);
    if (!called.wait_for(lock, std::chrono::seconds(10), [&] { return calls > 0; })) return false;
    called.wait_for(lock, std::chrono::milliseconds(50), [&] { return calls > 1; });
    return true;
  }
};

TYPED_TEST(PlatformContractTest, AnAccessCompletionIsCalledOnceOnAPlatformThread) {
  CompletionProbe probe;
  bool granted = false;
  this->store->requestAccessToEntityType(platform::EKEntityTypeEvent,
                                         [&](bool answer, std::optional<platform::NSError>) {
                                           granted = answer;
                                           probe.record();
                                         });
  ASSERT_TRUE(probe.awaitOnce());
  std::lock_guard lock(probe.mutex);
  EXPECT_EQ(probe.calls, 1);
  EXPECT_NE(probe.thread, std::this_thread::get_id());
  EXPECT_TRUE(granted);
}

TYPED_TEST(PlatformContractTest, AReminderFetchCompletesOnceOnAPlatformThread) {
  CompletionProbe probe;
  bool delivered = false;
  auto predicate = this->store->predicateForIncompleteRemindersWithDueDateStarting(std::nullopt, std::nullopt,
                                                                                   std::nullopt);
  (void)this->store->fetchRemindersMatchingPredicate(
      predicate, [&](std::optional<std::vector<std::shared_ptr<platform::EKReminder>>> reminders) {
        delivered = reminders.has_value();
        probe.record();
      });
  ASSERT_TRUE(probe.awaitOnce());
  std::lock_guard lock(probe.mutex);
  EXPECT_EQ(probe.calls, 1);
  EXPECT_NE(probe.thread, std::this_thread::get_id());
  EXPECT_TRUE(delivered);
}

TYPED_TEST(PlatformContractTest, AChangePostsOneNotificationPerConnection) {
  auto platform = this->world.platform();
  auto second = platform->makeEventStore();
  std::mutex mutex;
  std::map<const platform::NSObject*, int> posts;
  auto observer = std::make_shared<int>(0);
  platform->defaultCenter()->addObserver(
      observer, "changed:",
      [&](const platform::Notification& notification) {
        std::lock_guard lock(mutex);
        ++posts[notification.object.get()];
      },
      platform::EKEventStoreChangedNotification, nullptr);
  this->world.change();
  std::lock_guard lock(mutex);
  EXPECT_EQ(posts[this->store.get()], 1);
  EXPECT_EQ(posts[second.get()], 1);
  // And the change is there for every connection.
  EXPECT_THAT(this->titles(utc(2026, 3, 3), utc(2026, 3, 3, 1), std::nullopt), ElementsAre("New"));
}

// Saving and removing: the codes are the same on both platforms (10 read-only calendar, 11 no
// calendar, 12 end before start, 17 no such item, 18 any other change that cannot be kept).
TYPED_TEST(PlatformContractTest, ANewEventSavedIsServedWithWhatWasSetToEveryConnection) {
  auto event = this->world.platform()->eventWithEventStore(this->store);
  event->setTitle("Review");
  event->setLocation("Room 4");
  event->setNotes("Bring the draft");
  event->setURL(platform::URL("https://example.org/review"));
  event->setStartDate(utc(2026, 3, 4, 9));
  event->setEndDate(utc(2026, 3, 4, 10, 30));
  event->setCalendar(this->calendarTitled("Work"));
  EXPECT_EQ(event->title(), "Review");  // the object answers what was set
  ASSERT_EQ(this->store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  ASSERT_TRUE(event->eventIdentifier());
  auto other = this->world.platform()->makeEventStore();
  for (const auto& store : {this->store, other}) {
    auto found = store->eventsMatchingPredicate(
        store->predicateForEventsWithStartDate(utc(2026, 3, 4), utc(2026, 3, 5), std::nullopt));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]->title(), "Review");
    EXPECT_EQ(found[0]->location(), "Room 4");
    EXPECT_EQ(found[0]->notes(), "Bring the draft");
    EXPECT_EQ(found[0]->URL(), platform::URL("https://example.org/review"));
    EXPECT_EQ(found[0]->startDate(), utc(2026, 3, 4, 9));
    EXPECT_EQ(found[0]->endDate(), utc(2026, 3, 4, 10, 30));
    EXPECT_EQ(found[0]->calendar()->title(), "Work");
    EXPECT_EQ(found[0]->eventIdentifier(), event->eventIdentifier());
  }
}

TYPED_TEST(PlatformContractTest, AZoneSetOnANewEventIsServedWithTheSameInstants) {
  auto event = this->world.platform()->eventWithEventStore(this->store);
  event->setTitle("Call");
  event->setStartDate(utc(2026, 3, 6, 14));
  event->setEndDate(utc(2026, 3, 6, 15));
  event->setTimeZone(platform::TimeZone("America/New_York"));
  event->setCalendar(this->calendarTitled("Work"));
  EXPECT_EQ(event->timeZone(), platform::TimeZone("America/New_York"));
  ASSERT_EQ(this->store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  auto other = this->world.platform()->makeEventStore();
  auto found = other->eventsMatchingPredicate(
      other->predicateForEventsWithStartDate(utc(2026, 3, 6), utc(2026, 3, 7), std::nullopt));
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]->timeZone(), platform::TimeZone("America/New_York"));
  EXPECT_EQ(found[0]->startDate(), utc(2026, 3, 6, 14));
  EXPECT_EQ(found[0]->endDate(), utc(2026, 3, 6, 15));
}

TYPED_TEST(PlatformContractTest, AlarmsAndARepeatRuleSetOnANewEventAreServedAsSaved) {
  using platform::EKRecurrenceRule;
  auto event = this->world.platform()->eventWithEventStore(this->store);
  event->setTitle("Gym");
  event->setStartDate(utc(2026, 3, 5, 18));
  event->setEndDate(utc(2026, 3, 5, 19));
  event->setCalendar(this->calendarTitled("Home"));
  event->setAlarms(std::vector{platform::EKAlarm::alarmWithRelativeOffset(-900),
                               platform::EKAlarm::alarmWithRelativeOffset(-86400)});
  event->setRecurrenceRules(std::vector{EKRecurrenceRule::recurrenceWithFrequency(
      platform::EKRecurrenceFrequencyWeekly, 2,
      std::vector{platform::EKRecurrenceDayOfWeek::dayOfWeek(platform::EKWeekdayThursday)}, std::nullopt,
      std::nullopt, std::nullopt, std::nullopt, std::nullopt,
      platform::EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(3))});
  ASSERT_EQ(this->store->saveEvent(event, platform::EKSpanFutureEvents), std::nullopt);
  auto other = this->world.platform()->makeEventStore();
  auto found = other->eventsMatchingPredicate(
      other->predicateForEventsWithStartDate(utc(2026, 3, 5), utc(2026, 3, 6), std::nullopt));
  ASSERT_EQ(found.size(), 1u);
  const auto alarms = found[0]->alarms();
  ASSERT_TRUE(alarms);
  ASSERT_EQ(alarms->size(), 2u);
  EXPECT_EQ((*alarms)[0]->relativeOffset(), -900);
  EXPECT_EQ((*alarms)[1]->relativeOffset(), -86400);
  const auto rules = found[0]->recurrenceRules();
  ASSERT_TRUE(rules);
  ASSERT_EQ(rules->size(), 1u);
  const auto& rule = *rules->front();
  EXPECT_EQ(rule.frequency(), platform::EKRecurrenceFrequencyWeekly);
  EXPECT_EQ(rule.interval(), 2);
  ASSERT_TRUE(rule.daysOfTheWeek());
  ASSERT_EQ(rule.daysOfTheWeek()->size(), 1u);
  EXPECT_EQ(rule.daysOfTheWeek()->front()->dayOfTheWeek(), platform::EKWeekdayThursday);
  EXPECT_EQ(rule.daysOfTheWeek()->front()->weekNumber(), 0);
  ASSERT_TRUE(rule.recurrenceEnd());
  EXPECT_EQ(rule.recurrenceEnd()->occurrenceCount(), 3);
  EXPECT_EQ(rule.recurrenceEnd()->endDate(), std::nullopt);
}

TYPED_TEST(PlatformContractTest, AnAvailabilitySetIsServedAsSaved) {
  auto event = this->world.platform()->eventWithEventStore(this->store);
  event->setTitle("Focus");
  event->setStartDate(utc(2026, 3, 5, 13));
  event->setEndDate(utc(2026, 3, 5, 15));
  event->setCalendar(this->calendarTitled("Work"));
  event->setAvailability(platform::EKEventAvailabilityFree);
  ASSERT_EQ(this->store->saveEvent(event, platform::EKSpanThisEvent), std::nullopt);
  auto other = this->world.platform()->makeEventStore();
  auto read = [&] {
    return other->eventsMatchingPredicate(
        other->predicateForEventsWithStartDate(utc(2026, 3, 5), utc(2026, 3, 6), std::nullopt));
  };
  ASSERT_EQ(read().size(), 1u);
  EXPECT_EQ(read()[0]->availability(), platform::EKEventAvailabilityFree);
  auto stored = read()[0];
  stored->setAvailability(platform::EKEventAvailabilityUnavailable);
  ASSERT_EQ(other->saveEvent(stored, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_EQ(read().at(0)->availability(), platform::EKEventAvailabilityUnavailable);
  stored = read()[0];
  stored->setAvailability(9);
  EXPECT_EQ(this->codeOf(other->saveEvent(stored, platform::EKSpanThisEvent)), 18);
}

TYPED_TEST(PlatformContractTest, AChangedEventIsServedAsSavedAndMovesToTheCalendarSet) {
  auto standup = this->only(utc(2026, 3, 2, 10), utc(2026, 3, 2, 11));
  ASSERT_TRUE(standup);
  standup->setTitle("Standup, later");
  standup->setLocation(std::nullopt);
  standup->setStartDate(utc(2026, 3, 2, 14));
  standup->setEndDate(utc(2026, 3, 2, 14, 15));
  standup->setCalendar(this->calendarTitled("Home"));
  ASSERT_EQ(this->store->saveEvent(standup, platform::EKSpanThisEvent), std::nullopt);
  auto other = this->world.platform()->makeEventStore();
  auto moved = other->eventsMatchingPredicate(other->predicateForEventsWithStartDate(
      utc(2026, 3, 2, 14), utc(2026, 3, 2, 15), std::vector{this->calendarTitled("Home")}));
  ASSERT_EQ(moved.size(), 1u);
  EXPECT_EQ(moved[0]->title(), "Standup, later");
  EXPECT_EQ(moved[0]->location(), std::nullopt);
  EXPECT_EQ(moved[0]->endDate(), utc(2026, 3, 2, 14, 15));
  EXPECT_THAT(this->titles(utc(2026, 3, 2, 10), utc(2026, 3, 2, 11), std::nullopt), IsEmpty());
  EXPECT_THAT(this->titles(utc(2026, 3, 2), utc(2026, 3, 3), std::vector{this->calendarTitled("Work")}),
              ElementsAre("Ping"));
}

TYPED_TEST(PlatformContractTest, ARemovedEventIsGoneAndCannotBeRemovedAgain) {
  auto dinner = this->only(utc(2026, 3, 2, 18), utc(2026, 3, 2, 19));
  ASSERT_TRUE(dinner);
  ASSERT_EQ(this->store->removeEvent(dinner, platform::EKSpanThisEvent), std::nullopt);
  EXPECT_THAT(this->titles(utc(2026, 3, 2), utc(2026, 3, 3), std::nullopt), UnorderedElementsAre("Standup", "Ping"));
  EXPECT_EQ(this->codeOf(this->store->removeEvent(dinner, platform::EKSpanThisEvent)), 17);
}

TYPED_TEST(PlatformContractTest, ASaveThatCannotBeKeptFailsWithItsCodeAndChangesNothing) {
  auto platform = this->world.platform();
  auto homeless = platform->eventWithEventStore(this->store);
  homeless->setTitle("Nowhere");
  homeless->setStartDate(utc(2026, 3, 5, 9));
  homeless->setEndDate(utc(2026, 3, 5, 10));
  EXPECT_EQ(this->codeOf(this->store->saveEvent(homeless, platform::EKSpanThisEvent)), 11);
  auto backwards = platform->eventWithEventStore(this->store);
  backwards->setStartDate(utc(2026, 3, 5, 10));
  backwards->setEndDate(utc(2026, 3, 5, 9));
  backwards->setCalendar(this->calendarTitled("Work"));
  EXPECT_EQ(this->codeOf(this->store->saveEvent(backwards, platform::EKSpanThisEvent)), 12);
  auto timeless = platform->eventWithEventStore(this->store);
  timeless->setCalendar(this->calendarTitled("Work"));
  EXPECT_EQ(this->codeOf(this->store->saveEvent(timeless, platform::EKSpanThisEvent)), 18);
  // Repeat rules no calendar can keep: every 0 weeks; in a thirteenth month; a Monday in week 60; a
  // frequency past the sub-daily ones.
  using platform::EKRecurrenceRule;
  const std::vector<std::shared_ptr<EKRecurrenceRule>> impossible = {
      EKRecurrenceRule::recurrenceWithFrequency(platform::EKRecurrenceFrequencySecondly + 1, 1, nullptr),
      EKRecurrenceRule::recurrenceWithFrequency(platform::EKRecurrenceFrequencyWeekly, 0, nullptr),
      EKRecurrenceRule::recurrenceWithFrequency(platform::EKRecurrenceFrequencyYearly, 1, std::nullopt, std::nullopt,
                                                std::vector<platform::AnyObject>{platform::NSNumber(13)},
                                                std::nullopt, std::nullopt, std::nullopt, nullptr),
      EKRecurrenceRule::recurrenceWithFrequency(
          platform::EKRecurrenceFrequencyMonthly, 1,
          std::vector{platform::EKRecurrenceDayOfWeek::dayOfWeek(platform::EKWeekdayMonday, 60)}, std::nullopt,
          std::nullopt, std::nullopt, std::nullopt, std::nullopt, nullptr)};
  for (const auto& rule : impossible) {
    auto repeating = platform->eventWithEventStore(this->store);
    repeating->setStartDate(utc(2026, 3, 5, 9));
    repeating->setEndDate(utc(2026, 3, 5, 10));
    repeating->setCalendar(this->calendarTitled("Work"));
    repeating->setRecurrenceRules(std::vector{rule});
    EXPECT_EQ(this->codeOf(this->store->saveEvent(repeating, platform::EKSpanFutureEvents)), 18);
  }
  EXPECT_THAT(this->titles(utc(2026, 3, 5), utc(2026, 3, 6), std::nullopt), IsEmpty());
  EXPECT_EQ(this->titles(utc(2026, 3, 2), utc(2026, 3, 3), std::nullopt).size(), 3u);
}

TYPED_TEST(PlatformContractTest, ANewReminderIsSavedCompletedAndRemoved) {
  auto platform = this->world.platform();
  auto reminder = platform->reminderWithEventStore(this->store);
  reminder->setTitle("Buy stamps");
  reminder->setNotes("Ten of them");
  reminder->setPriority(1);
  platform::DateComponents due;
  due.year = 2026;
  due.month = 3;
  due.day = 6;
  reminder->setDueDateComponents(due);
  reminder->setCalendar(this->calendarTitled("Tasks", platform::EKEntityTypeReminder));
  ASSERT_EQ(this->store->saveReminder(reminder), std::nullopt);
  const std::string identifier = reminder->calendarItemIdentifier();
  ASSERT_FALSE(identifier.empty());

  auto other = platform->makeEventStore();
  auto found = this->reminderNamed(other, identifier);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->title(), "Buy stamps");
  EXPECT_EQ(found->notes(), "Ten of them");
  EXPECT_EQ(found->priority(), 1);
  EXPECT_EQ(found->dueDateComponents(), due);
  EXPECT_FALSE(found->isCompleted());
  EXPECT_EQ(found->calendar()->title(), "Tasks");

  found->setCompleted(true);
  ASSERT_EQ(other->saveReminder(found), std::nullopt);
  auto done = this->reminderNamed(this->store, identifier);
  ASSERT_TRUE(done);
  EXPECT_TRUE(done->isCompleted());
  EXPECT_TRUE(done->completionDate());

  ASSERT_EQ(this->store->removeReminder(done), std::nullopt);
  EXPECT_EQ(this->store->calendarItemWithIdentifier(identifier), nullptr);
  EXPECT_EQ(this->codeOf(this->store->removeReminder(done)), 17);
}

TYPED_TEST(PlatformContractTest, AStoredReminderChangesAndReopens) {
  auto platform = this->world.platform();
  auto predicate = this->store->predicateForIncompleteRemindersWithDueDateStarting(std::nullopt, std::nullopt,
                                                                                   std::nullopt);
  std::shared_ptr<platform::EKReminder> water;
  std::mutex mutex;
  std::condition_variable fetched;
  bool arrived = false;
  (void)this->store->fetchRemindersMatchingPredicate(
      predicate, [&](std::optional<std::vector<std::shared_ptr<platform::EKReminder>>> reminders) {
        std::lock_guard lock(mutex);
        if (reminders && reminders->size() == 1) water = reminders->front();
        arrived = true;
        fetched.notify_all();
      });
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(fetched.wait_for(lock, std::chrono::seconds(10), [&] { return arrived; }));
  }
  ASSERT_TRUE(water);
  const std::string identifier = water->calendarItemIdentifier();
  water->setTitle("Water the plants");
  water->setPriority(5);
  ASSERT_EQ(this->store->saveReminder(water), std::nullopt);
  auto changed = this->reminderNamed(platform->makeEventStore(), identifier);
  ASSERT_TRUE(changed);
  EXPECT_EQ(changed->title(), "Water the plants");
  EXPECT_EQ(changed->priority(), 5);

  changed->setPriority(12);
  EXPECT_EQ(this->codeOf(this->store->saveReminder(changed)), 18);
  auto homeless = platform->reminderWithEventStore(this->store);
  homeless->setTitle("Nowhere");
  EXPECT_EQ(this->codeOf(this->store->saveReminder(homeless)), 11);
}

}  // namespace
}  // namespace vesp
