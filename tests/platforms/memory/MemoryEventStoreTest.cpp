#include "platforms/memory/MemoryEventStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platforms/memory/MemoryPlatform.h"

namespace vesp::memory {
namespace {

using platform::Date;
using ::testing::ElementsAre;

constexpr double hour = 3600.0;

class MemoryEventStoreTest : public ::testing::Test {
 protected:
  std::shared_ptr<MemoryPlatform> platform = MemoryPlatform::make();
  std::shared_ptr<MemorySource> source = platform->addSource("Local");
  std::shared_ptr<MemoryCalendar> work = platform->addCalendar("Work", source);
  std::shared_ptr<MemoryCalendar> home = platform->addCalendar("Home", source);
  std::shared_ptr<platform::EKEventStore> store = platform->makeEventStore();

  std::vector<std::string> titlesIn(Date start, Date end, const platform::EKEventStore::CalendarList& calendars) {
    std::vector<std::string> titles;
    for (const auto& event : store->eventsMatchingPredicate(store->predicateForEventsWithStartDate(start, end, calendars)))
      titles.push_back(event->title().value_or("<none>"));
    return titles;
  }
};

TEST_F(MemoryEventStoreTest, PredicatesSelectOccurrencesOverlappingTheHalfOpenWindow) {
  platform->addEvent(work, "before", Date(0), Date(hour));
  platform->addEvent(work, "straddles start", Date(hour * 1.5), Date(hour * 2.5));
  platform->addEvent(work, "inside", Date(hour * 3), Date(hour * 4));
  platform->addEvent(work, "ends at start", Date(hour), Date(hour * 2));
  platform->addEvent(work, "starts at end", Date(hour * 5), Date(hour * 6));
  EXPECT_THAT(titlesIn(Date(hour * 2), Date(hour * 5), std::nullopt), ElementsAre("straddles start", "inside"));
}

TEST_F(MemoryEventStoreTest, AZeroLengthOccurrenceIsTheInstantOfItsStart) {
  platform->addEvent(work, "at start", Date(hour), Date(hour));
  platform->addEvent(work, "at end", Date(hour * 2), Date(hour * 2));
  EXPECT_THAT(titlesIn(Date(hour), Date(hour * 2), std::nullopt), ElementsAre("at start"));
}

TEST_F(MemoryEventStoreTest, AnAbsentCalendarListMeansAllAndAnEmptyOneNone) {
  platform->addEvent(work, "work", Date(0), Date(hour));
  platform->addEvent(home, "home", Date(0), Date(hour));
  EXPECT_THAT(titlesIn(Date(0), Date(hour), std::nullopt), ElementsAre("work", "home"));
  EXPECT_TRUE(titlesIn(Date(0), Date(hour), std::vector<std::shared_ptr<platform::EKCalendar>>{}).empty());
  EXPECT_THAT(titlesIn(Date(0), Date(hour), std::vector<std::shared_ptr<platform::EKCalendar>>{home}),
              ElementsAre("home"));
}

TEST_F(MemoryEventStoreTest, OccurrencesComeInStartOrder) {
  platform->addEvent(work, "late", Date(hour * 3), Date(hour * 4));
  platform->addEvent(work, "early", Date(hour), Date(hour * 2));
  EXPECT_THAT(titlesIn(Date(0), Date(hour * 10), std::nullopt), ElementsAre("early", "late"));
}

TEST_F(MemoryEventStoreTest, BrokenOccurrencesWithoutDatesOrCalendarStillReachTheCaller) {
  MemoryEventFields broken;
  broken.item.title = "broken";
  platform->addEvent(broken);
  EXPECT_THAT(titlesIn(Date(0), Date(hour), std::nullopt), ElementsAre("broken"));
  EXPECT_TRUE(titlesIn(Date(0), Date(hour), std::vector<std::shared_ptr<platform::EKCalendar>>{work}).empty());
}

TEST_F(MemoryEventStoreTest, CalendarsFromAnotherStoreOfTheSameWorldMatchByIdentifier) {
  platform->addEvent(work, "work", Date(0), Date(hour));
  auto other = platform->makeEventStore();
  auto calendars = other->calendarsForEntityType(platform::EKEntityTypeEvent);
  EXPECT_THAT(titlesIn(Date(0), Date(hour), calendars), ElementsAre("work"));
}

TEST_F(MemoryEventStoreTest, CalendarsAreListedByTheEntityTypesTheyAllow) {
  auto lists = platform->addCalendar("Lists", source, platform::EKEntityMaskReminder);
  auto events = store->calendarsForEntityType(platform::EKEntityTypeEvent);
  auto reminders = store->calendarsForEntityType(platform::EKEntityTypeReminder);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0], work);
  ASSERT_EQ(reminders.size(), 1u);
  EXPECT_EQ(reminders[0], lists);
  EXPECT_TRUE(store->calendarsForEntityType(7).empty());
}

TEST_F(MemoryEventStoreTest, EventWithIdentifierAnswersTheEarliestOccurrence) {
  auto series = platform->addEvent(work, "daily", Date(hour * 48), Date(hour * 49));
  platform->addOccurrence(series, Date(hour * 24));
  platform->addOccurrence(series, Date(hour * 72));
  auto found = store->eventWithIdentifier(*series->eventIdentifier());
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->occurrenceDate(), Date(hour * 24));
  EXPECT_EQ(store->eventWithIdentifier("no-such-event"), nullptr);
}

TEST_F(MemoryEventStoreTest, ADetachedOccurrenceKeepsItsOriginalOccurrenceDate) {
  auto series = platform->addEvent(work, "weekly", Date(0), Date(hour));
  auto moved = platform->addOccurrence(series, Date(hour * 168), Date(hour * 170));
  EXPECT_TRUE(moved->isDetached());
  EXPECT_EQ(moved->occurrenceDate(), Date(hour * 168));
  EXPECT_EQ(moved->startDate(), Date(hour * 170));
  EXPECT_EQ(moved->endDate(), Date(hour * 171));
  EXPECT_EQ(moved->eventIdentifier(), series->eventIdentifier());
}

TEST_F(MemoryEventStoreTest, CalendarItemWithIdentifierFindsEventsAndReminders) {
  auto event = platform->addEvent(work, "event", Date(0), Date(hour));
  auto reminder = platform->addReminder(work, "reminder");
  EXPECT_EQ(store->calendarItemWithIdentifier(event->calendarItemIdentifier()), event);
  EXPECT_EQ(store->calendarItemWithIdentifier(reminder->calendarItemIdentifier()), reminder);
  EXPECT_EQ(store->calendarItemWithIdentifier("nothing"), nullptr);
}

platform::DateComponents day(std::int64_t year, std::int64_t month, std::int64_t dayOfMonth) {
  platform::DateComponents components;
  components.year = year;
  components.month = month;
  components.day = dayOfMonth;
  return components;
}

TEST_F(MemoryEventStoreTest, DueDatesAreReadFromComponentsInUtc) {
  EXPECT_EQ(memoryDueDate(day(2001, 1, 2)), Date(86400));
  auto withTime = day(2001, 1, 1);
  withTime.hour = 1;
  withTime.minute = 30;
  EXPECT_EQ(memoryDueDate(withTime), Date(5400));
  EXPECT_FALSE(memoryDueDate(platform::DateComponents{}));
}

TEST_F(MemoryEventStoreTest, IncompleteReminderPredicateSelectsByDueDate) {
  auto lists = platform->addCalendar("Lists", source, platform::EKEntityMaskReminder);
  platform->addReminder(lists, "due day 2", day(2001, 1, 2));
  platform->addReminder(lists, "due day 5", day(2001, 1, 5));
  platform->addReminder(lists, "no due date");
  auto done = platform->addReminder(lists, "done", day(2001, 1, 2));
  done->update([](MemoryReminderFields& f) { f.isCompleted = true; });
  auto memoryStore = std::static_pointer_cast<MemoryEventStore>(store);
  auto titles = [&](std::optional<Date> start, std::optional<Date> end) {
    std::vector<std::string> list;
    for (const auto& reminder : memoryStore->remindersMatchingPredicate(
             store->predicateForIncompleteRemindersWithDueDateStarting(start, end, std::nullopt)))
      list.push_back(*reminder->title());
    return list;
  };
  EXPECT_THAT(titles(Date(0), Date(86400 * 3)), ElementsAre("due day 2"));
  EXPECT_THAT(titles(Date(86400), std::nullopt), ElementsAre("due day 2", "due day 5"));
  EXPECT_THAT(titles(std::nullopt, std::nullopt), ElementsAre("due day 2", "due day 5", "no due date"));
}

TEST_F(MemoryEventStoreTest, CompletedReminderPredicateSelectsByCompletionDate) {
  auto lists = platform->addCalendar("Lists", source, platform::EKEntityMaskReminder);
  auto early = platform->addReminder(lists, "early");
  early->update([](MemoryReminderFields& f) {
    f.isCompleted = true;
    f.completionDate = Date(10);
  });
  auto late = platform->addReminder(lists, "late");
  late->update([](MemoryReminderFields& f) {
    f.isCompleted = true;
    f.completionDate = Date(1000);
  });
  platform->addReminder(lists, "open");
  auto memoryStore = std::static_pointer_cast<MemoryEventStore>(store);
  auto matches = memoryStore->remindersMatchingPredicate(
      store->predicateForCompletedRemindersWithCompletionDateStarting(Date(0), Date(100), std::nullopt));
  ASSERT_EQ(matches.size(), 1u);
  EXPECT_EQ(*matches[0]->title(), "early");
  auto none = memoryStore->remindersMatchingPredicate(store->predicateForCompletedRemindersWithCompletionDateStarting(
      Date(0), Date(2000), std::vector<std::shared_ptr<platform::EKCalendar>>{}));
  EXPECT_TRUE(none.empty());
}

TEST_F(MemoryEventStoreTest, ForeignPredicatesMatchNothing) {
  auto foreign = std::make_shared<platform::EKPredicate>();
  EXPECT_TRUE(store->eventsMatchingPredicate(foreign).empty());
}

}  // namespace
}  // namespace vesp::memory
