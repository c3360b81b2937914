#include "Vesp/VespReminder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/PlatformObjects.h"

namespace vesp {
namespace {

using namespace vesp::testing;
using ::testing::ElementsAre;

TEST(VespReminderTest, ReadsTheAttributesInTheOrderOfTheMemberwiseArguments) {
  auto platformReminder = makeReminder();
  VespReminder reminder(*platformReminder);
  EXPECT_THAT(platformReminder->reads(),
              ElementsAre("alarms", "attendees", "calendar", "calendarItemIdentifier", "calendarItemExternalIdentifier",
                          "completionDate", "creationDate", "dueDateComponents", "isCompleted", "lastModifiedDate",
                          "location", "notes", "priority", "recurrenceRules", "startDateComponents", "timeZone",
                          "title", "URL"));
  EXPECT_EQ(reminder.title(), "Buy milk");
  EXPECT_EQ(reminder.calendar().title(), "Groceries");
  EXPECT_EQ(reminder.priority(), VespReminderPriority::medium);
  EXPECT_EQ(reminder.location(), "Market");
  EXPECT_EQ(reminder.notes(), "Oat milk");
}

TEST(VespReminderTest, PriorityLevels) {
  EXPECT_EQ(vespReminderPriority(0), VespReminderPriority::none);
  EXPECT_EQ(vespReminderPriority(1), VespReminderPriority::high);
  EXPECT_EQ(vespReminderPriority(4), VespReminderPriority::high);
  EXPECT_EQ(vespReminderPriority(5), VespReminderPriority::medium);
  EXPECT_EQ(vespReminderPriority(6), VespReminderPriority::low);
  EXPECT_EQ(vespReminderPriority(9), VespReminderPriority::low);
  EXPECT_EQ(vespReminderPriority(10), VespReminderPriority::none);
  EXPECT_EQ(vespReminderPriority(-1), VespReminderPriority::none);
}

TEST(VespReminderTest, AbsentAndEmptyAlarmListsGiveUnequalRecords) {
  auto fields = fullReminderFields();
  fields.item.alarms.reset();
  VespReminder absent(*makeReminder(fields));
  fields.item.alarms.emplace();
  VespReminder empty(*makeReminder(fields));
  EXPECT_FALSE(absent.alarms());
  ASSERT_TRUE(empty.alarms());
  EXPECT_TRUE(empty.alarms()->empty());
  EXPECT_NE(absent, empty);
}

TEST(VespReminderTest, ListsKeepThePlatformsOrder) {
  auto fields = fullReminderFields();
  fields.item.alarms = std::vector<std::shared_ptr<platform::EKAlarm>>{makeAlarm(-10), makeAlarm(-20)};
  fields.item.attendees = std::vector<std::shared_ptr<platform::EKParticipant>>{
      makeParticipant("Ann"), makeParticipant("Bo"), makeParticipant("Cy")};
  VespReminder reminder(*makeReminder(fields));
  ASSERT_EQ(reminder.alarms()->size(), 2u);
  EXPECT_EQ((*reminder.alarms())[0].relativeOffset(), -10.0);
  EXPECT_EQ((*reminder.alarms())[1].relativeOffset(), -20.0);
  ASSERT_EQ(reminder.attendees()->size(), 3u);
  EXPECT_EQ(*(*reminder.attendees())[2].name(), "Cy");
}

TEST(VespReminderTest, DueDateComponentsAreKeptExactlyAsGiven) {
  VespReminder reminder(*makeReminder());
  platform::DateComponents expected;
  expected.year = 2026;
  expected.month = 11;
  expected.day = 23;
  EXPECT_EQ(reminder.dueDateComponents(), expected);
  EXPECT_FALSE(reminder.dueDateComponents()->hour);
  EXPECT_FALSE(reminder.dueDateComponents()->timeZone);
}

TEST(VespReminderTest, ADueDateWithoutTimeZoneLeavesTheTimeZoneAbsent) {
  EXPECT_FALSE(VespReminder(*makeReminder()).timeZone());
}

TEST(VespReminderTest, MemberwiseTakesIsCompletedRightAfterTheDueDate) {
  VespReminder base(*makeReminder());
  VespReminder reminder(base.alarms(), base.attendees(), base.calendar(), "item", "external", std::nullopt,
                        std::nullopt, base.dueDateComponents(), true, platform::Date(777), "Here", std::nullopt,
                        VespReminderPriority::low, std::nullopt, std::nullopt, platform::TimeZone("UTC"), "Title",
                        std::nullopt);
  EXPECT_TRUE(reminder.isCompleted());
  EXPECT_EQ(reminder.lastModifiedDate(), platform::Date(777));
  EXPECT_EQ(reminder.location(), "Here");
  EXPECT_EQ(reminder.priority(), VespReminderPriority::low);
  EXPECT_EQ(reminder.timeZone(), platform::TimeZone("UTC"));
}

TEST(VespReminderDeathTest, AReminderWithoutExternalIdentifierStopsTheProcess) {
  auto fields = fullReminderFields();
  fields.item.calendarItemExternalIdentifier.reset();
  auto reminder = makeReminder(fields);
  EXPECT_DEATH(VespReminder{*reminder}, "VespReminder requires the reminder's calendarItemExternalIdentifier");
}

TEST(VespReminderDeathTest, AReminderWithoutCalendarStopsTheProcess) {
  auto fields = fullReminderFields();
  fields.item.calendar = nullptr;
  auto reminder = makeReminder(fields);
  EXPECT_DEATH(VespReminder{*reminder}, "VespReminder requires the reminder's calendar");
}

TEST(VespReminderDeathTest, AReminderWithoutTitleStopsTheProcess) {
  auto fields = fullReminderFields();
  fields.item.title.reset();
  auto reminder = makeReminder(fields);
  EXPECT_DEATH(VespReminder{*reminder}, "VespReminder requires the reminder's title");
}

}  // namespace
}  // namespace vesp
