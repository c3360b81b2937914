#include "platforms/memory/MemoryObjects.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesp::memory {
namespace {

using ::testing::ElementsAre;

TEST(MemoryObjectsTest, EveryEventAttributeCanBeSetIncludingAbsentOnes) {
  MemoryEventFields fields;
  fields.item.title = std::nullopt;
  fields.item.alarms = std::vector<std::shared_ptr<platform::EKAlarm>>{};
  fields.availability = -1;
  fields.values.emplace("travelTime", platform::AnyObject(platform::NSNumber(1800)));
  MemoryEvent event(fields);
  EXPECT_FALSE(event.title());
  EXPECT_EQ(event.calendar(), nullptr);
  ASSERT_TRUE(event.alarms());
  EXPECT_TRUE(event.alarms()->empty());
  EXPECT_FALSE(event.attendees());
  EXPECT_EQ(event.availability(), -1);
  EXPECT_EQ(event.valueForKey("travelTime")->number()->doubleValue(), 1800.0);
  EXPECT_FALSE(event.valueForKey("missing"));
}

TEST(MemoryObjectsTest, ObjectsRecordTheAttributesReadInOrder) {
  MemoryEvent event(MemoryEventFields{});
  (void)event.alarms();
  (void)event.attendees();
  (void)event.availability();
  (void)event.valueForKey("travelTime");
  EXPECT_THAT(event.reads(), ElementsAre("alarms", "attendees", "availability", "valueForKey"));
  event.clearReads();
  EXPECT_TRUE(event.reads().empty());
}

TEST(MemoryObjectsTest, NewEventsAcceptStartEndAllDayAndCalendar) {
  auto calendar = std::make_shared<MemoryCalendar>(MemoryCalendarFields{});
  MemoryEvent event(MemoryEventFields{});
  event.setStartDate(platform::Date(10));
  event.setEndDate(platform::Date(20));
  event.setAllDay(true);
  event.setCalendar(calendar);
  EXPECT_EQ(event.startDate(), platform::Date(10));
  EXPECT_EQ(event.endDate(), platform::Date(20));
  EXPECT_TRUE(event.isAllDay());
  EXPECT_EQ(event.calendar(), calendar);
  event.setCalendar(nullptr);
  EXPECT_EQ(event.calendar(), nullptr);
}

TEST(MemoryObjectsTest, CalendarsMayReportNoColourOrSource) {
  MemoryCalendarFields fields;
  fields.color = nullptr;
  fields.source = nullptr;
  fields.type = 99;
  MemoryCalendar calendar(fields);
  EXPECT_EQ(calendar.CGColor(), nullptr);
  EXPECT_EQ(calendar.source(), nullptr);
  EXPECT_EQ(calendar.type(), 99);
}

TEST(MemoryObjectsTest, RecurrenceRuleNumberListsMayHoldNonNumbers) {
  MemoryRecurrenceRuleFields fields;
  fields.daysOfTheMonth = numbers({1, 15, -1});
  fields.setPositions = std::vector<platform::AnyObject>{platform::AnyObject("not a number")};
  MemoryRecurrenceRule rule(fields);
  ASSERT_EQ(rule.daysOfTheMonth()->size(), 3u);
  EXPECT_EQ((*rule.daysOfTheMonth())[2].number()->unsignedIntegerValue(), 18446744073709551615ull);
  EXPECT_FALSE((*rule.setPositions())[0].isNumber());
  EXPECT_FALSE(rule.weeksOfTheYear());
}

TEST(MemoryObjectsTest, RemindersKeepTheirDateComponentsAsGiven) {
  MemoryReminderFields fields;
  platform::DateComponents due;
  due.year = 2026;
  due.month = 12;
  due.day = 1;
  fields.dueDateComponents = due;
  fields.priority = 5;
  MemoryReminder reminder(fields);
  EXPECT_EQ(reminder.dueDateComponents(), due);
  EXPECT_FALSE(reminder.dueDateComponents()->hour);
  EXPECT_EQ(reminder.priority(), 5);
  EXPECT_FALSE(reminder.timeZone());
}

}  // namespace
}  // namespace vesp::memory
