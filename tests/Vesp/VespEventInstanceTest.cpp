#include "Vesp/VespEventInstance.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/ForwardingEvent.h"
#include "tests/support/PlatformObjects.h"

namespace vesp {
namespace {

using namespace vesp::testing;
using platform::Date;
using ::testing::ElementsAre;

constexpr double D = 694224000;  // 2023-01-01 00:00:00 UTC

TEST(VespEventInstanceTest, CopiesEveryAttributeOfAFullPlatformEvent) {
  VespEventInstance event(*makeEvent());
  ASSERT_TRUE(event.alarms());
  EXPECT_EQ(event.alarms()->size(), 2u);
  EXPECT_EQ((*event.alarms())[1].relativeOffset(), -60.0);
  ASSERT_TRUE(event.attendees());
  EXPECT_EQ(*(*event.attendees())[0].name(), "Ann");
  EXPECT_EQ(event.availability(), VespEventAvailability::busy);
  EXPECT_FALSE(event.birthdayContactIdentifier());
  EXPECT_EQ(event.calendar().title(), "Work");
  EXPECT_EQ(event.calendarItemIdentifier(), "item-1");
  EXPECT_EQ(event.calendarItemExternalIdentifier(), "external-1");
  EXPECT_EQ(event.creationDate(), Date(1000));
  EXPECT_EQ(event.endDate(), Date(D + 900));
  EXPECT_EQ(event.eventIdentifier(), "E1");
  EXPECT_FALSE(event.isAllDay());
  EXPECT_FALSE(event.isDetached());
  EXPECT_EQ(event.lastModifiedDate(), Date(2000));
  EXPECT_EQ(event.location(), "Room 4");
  EXPECT_EQ(event.notes(), "Bring slides");
  EXPECT_EQ(event.originalOccurrenceDate(), Date(D));
  EXPECT_EQ(*event.organizer()->name(), "Cy");
  EXPECT_EQ(event.recurrenceRules()->size(), 1u);
  EXPECT_EQ(event.startDate(), Date(D));
  EXPECT_EQ(event.status(), VespEventStatus::confirmed);
  EXPECT_EQ(event.structuredLocation()->title(), "Office");
  EXPECT_EQ(event.timeZone(), platform::TimeZone("Europe/Berlin"));
  EXPECT_EQ(event.title(), "Standup");
  EXPECT_EQ(event.travelTime(), 1800.0);
  EXPECT_EQ(event.url(), platform::URL("https://example.org/meeting"));
}

TEST(VespEventInstanceTest, ReadsThePlatformAttributesInTheDocumentedOrder) {
  auto platformEvent = makeEvent();
  VespEventInstance event(*platformEvent);
  EXPECT_THAT(platformEvent->reads(),
              ElementsAre("alarms", "attendees", "availability", "birthdayContactIdentifier", "calendar",
                          "calendarItemIdentifier", "calendarItemExternalIdentifier", "creationDate", "endDate",
                          "eventIdentifier", "eventIdentifier", "occurrenceDate", "isAllDay", "isDetached",
                          "lastModifiedDate", "location", "notes", "occurrenceDate", "organizer", "recurrenceRules",
                          "startDate", "status", "structuredLocation", "timeZone", "title", "valueForKey", "URL"));
}

TEST(VespEventInstanceTest, AbsentListsStayAbsentAndEmptyListsStayEmpty) {
  auto fields = fullEventFields();
  fields.item.alarms.reset();
  fields.item.attendees.reset();
  fields.item.recurrenceRules.reset();
  VespEventInstance absent(*makeEvent(fields));
  EXPECT_FALSE(absent.alarms());
  EXPECT_FALSE(absent.attendees());
  EXPECT_FALSE(absent.recurrenceRules());
  fields.item.alarms.emplace();
  fields.item.attendees.emplace();
  fields.item.recurrenceRules.emplace();
  VespEventInstance empty(*makeEvent(fields));
  ASSERT_TRUE(empty.alarms());
  EXPECT_TRUE(empty.alarms()->empty());
  ASSERT_TRUE(empty.attendees());
  EXPECT_TRUE(empty.attendees()->empty());
  ASSERT_TRUE(empty.recurrenceRules());
  EXPECT_TRUE(empty.recurrenceRules()->empty());
  EXPECT_NE(absent, empty);
}

TEST(VespEventInstanceTest, TravelTimeIsAbsentWhenNoneTextOrZero) {
  EXPECT_FALSE(vespTravelTime(std::nullopt));
  EXPECT_FALSE(vespTravelTime(platform::AnyObject("1800")));
  EXPECT_FALSE(vespTravelTime(platform::AnyObject(platform::NSNumber(0))));
  EXPECT_FALSE(vespTravelTime(platform::AnyObject(platform::NSNumber(-0.0))));
  auto fields = fullEventFields();
  fields.values.clear();
  EXPECT_FALSE(VespEventInstance(*makeEvent(fields)).travelTime());
  fields.values.emplace("travelTime", platform::AnyObject("half an hour"));
  EXPECT_FALSE(VespEventInstance(*makeEvent(fields)).travelTime());
}

TEST(VespEventInstanceTest, TravelTimeNumbersAreKeptUnchanged) {
  EXPECT_EQ(vespTravelTime(platform::AnyObject(platform::NSNumber(1800))), 1800.0);
  EXPECT_EQ(vespTravelTime(platform::AnyObject(platform::NSNumber(-5))), -5.0);
  auto nan = vespTravelTime(platform::AnyObject(platform::NSNumber(std::nan(""))));
  ASSERT_TRUE(nan);
  EXPECT_TRUE(std::isnan(*nan));
}

TEST(VespEventInstanceTest, AvailabilityConversion) {
  EXPECT_EQ(vespEventAvailability(-1), VespEventAvailability::notSupported);
  EXPECT_EQ(vespEventAvailability(0), VespEventAvailability::busy);
  EXPECT_EQ(vespEventAvailability(1), VespEventAvailability::free);
  EXPECT_EQ(vespEventAvailability(2), VespEventAvailability::tentative);
  EXPECT_EQ(vespEventAvailability(3), VespEventAvailability::unavailable);
  EXPECT_EQ(vespEventAvailability(4), VespEventAvailability::busy);
  EXPECT_EQ(vespEventAvailability(-2), VespEventAvailability::busy);
}

TEST(VespEventInstanceTest, StatusConversion) {
  EXPECT_EQ(vespEventStatus(0), VespEventStatus::none);
  EXPECT_EQ(vespEventStatus(1), VespEventStatus::confirmed);
  EXPECT_EQ(vespEventStatus(2), VespEventStatus::tentative);
  EXPECT_EQ(vespEventStatus(3), VespEventStatus::canceled);
  EXPECT_EQ(vespEventStatus(4), VespEventStatus::none);
  EXPECT_EQ(vespEventStatus(-1), VespEventStatus::none);
}

TEST(VespEventInstanceTest, AnOccurrenceIsIdentifiedByEventAndOccurrenceDateAlsoWhenDetached) {
  auto fields = fullEventFields();
  fields.isDetached = true;
  fields.startDate = Date(D + 3600);
  fields.endDate = Date(D + 7200);
  VespEventInstance event(*makeEvent(fields));
  EXPECT_EQ(event.eventInstanceIdentifier(), VespEventInstanceIdentifier::withOccurrenceDate("E1", Date(D)));
  EXPECT_EQ(event.originalOccurrenceDate(), Date(D));
  EXPECT_EQ(event.startDate(), Date(D + 3600));
  EXPECT_TRUE(event.isDetached());
}

TEST(VespEventInstanceTest, MemberwiseConstructionGivesTheSameIdentifierFormAsThePlatformEvent) {
  auto platformEvent = makeEvent();
  VespEventInstance fromPlatform(*platformEvent);
  VespEventInstance memberwise(
      fromPlatform.alarms(), fromPlatform.attendees(), fromPlatform.availability(),
      fromPlatform.birthdayContactIdentifier(), fromPlatform.calendar(), fromPlatform.calendarItemIdentifier(),
      fromPlatform.calendarItemExternalIdentifier(), fromPlatform.creationDate(), fromPlatform.endDate(), "E1",
      fromPlatform.isAllDay(), fromPlatform.isDetached(), fromPlatform.lastModifiedDate(), fromPlatform.location(),
      fromPlatform.notes(), Date(D), fromPlatform.organizer(), fromPlatform.recurrenceRules(), fromPlatform.startDate(),
      fromPlatform.status(), fromPlatform.structuredLocation(), fromPlatform.timeZone(), fromPlatform.title(),
      fromPlatform.travelTime(), fromPlatform.url());
  EXPECT_EQ(memberwise.eventInstanceIdentifier().kind(), VespEventInstanceIdentifier::Case::withOccurrenceDate);
  EXPECT_EQ(memberwise.eventInstanceIdentifier(), fromPlatform.eventInstanceIdentifier());
  EXPECT_EQ(memberwise.originalOccurrenceDate(), Date(D));
  EXPECT_EQ(memberwise, fromPlatform);
  EXPECT_EQ(VespEventInstance(*platformEvent), VespEventInstance(*platformEvent));
}

TEST(VespEventInstanceTest, RecordsDifferingInOneFieldAreUnequal) {
  VespEventInstance base(*makeEvent());
  auto fields = fullEventFields();
  fields.item.notes = "Other notes";
  EXPECT_NE(base, VespEventInstance(*makeEvent(fields)));
  fields = fullEventFields();
  fields.item.location.reset();
  EXPECT_NE(base, VespEventInstance(*makeEvent(fields)));
}

// Every absent required attribute stops the process.
class VespEventInstanceDeathTest : public ::testing::Test {
 protected:
  void expectDeath(void (*change)(MemoryEventFields&), const char* message) {
    auto fields = fullEventFields();
    change(fields);
    auto event = makeEvent(fields);
    EXPECT_DEATH(VespEventInstance{*event}, message);
  }
};

TEST_F(VespEventInstanceDeathTest, AbsentCalendar) {
  expectDeath([](MemoryEventFields& f) { f.item.calendar = nullptr; }, "VespEventInstance requires the event's calendar");
}
TEST_F(VespEventInstanceDeathTest, CalendarWithoutColour) {
  expectDeath(
      [](MemoryEventFields& f) {
        auto calendar = fullCalendarFields();
        calendar.color = nullptr;
        f.item.calendar = makeCalendar(calendar);
      },
      "VespCalendar requires the calendar's colour");
}
TEST_F(VespEventInstanceDeathTest, AbsentExternalIdentifier) {
  expectDeath([](MemoryEventFields& f) { f.item.calendarItemExternalIdentifier.reset(); },
              "requires the event's calendarItemExternalIdentifier");
}
TEST_F(VespEventInstanceDeathTest, AbsentEndDate) {
  expectDeath([](MemoryEventFields& f) { f.endDate.reset(); }, "requires the event's endDate");
}
TEST_F(VespEventInstanceDeathTest, AbsentEventIdentifier) {
  expectDeath([](MemoryEventFields& f) { f.eventIdentifier.reset(); }, "requires the event's eventIdentifier");
}
// An event whose identifier is there at the first read and gone at the second.
class IdentifierReadOnce : public ForwardingEvent {
 public:
  using ForwardingEvent::ForwardingEvent;
  std::optional<std::string> eventIdentifier() const override {
    if (reads_++ == 0) return ForwardingEvent::eventIdentifier();
    return std::nullopt;
  }

 private:
  mutable int reads_ = 0;
};

// An event whose occurrence date is there at the identifier's read and gone at its own.
class OccurrenceDateReadOnce : public ForwardingEvent {
 public:
  using ForwardingEvent::ForwardingEvent;
  std::optional<platform::Date> occurrenceDate() const override {
    if (reads_++ == 0) return ForwardingEvent::occurrenceDate();
    return std::nullopt;
  }

 private:
  mutable int reads_ = 0;
};

TEST_F(VespEventInstanceDeathTest, EventIdentifierAbsentAtItsSecondRead) {
  IdentifierReadOnce event(makeEvent());
  EXPECT_DEATH(VespEventInstance{event}, "requires the event's eventIdentifier \\(read for its identifier\\)");
}

TEST_F(VespEventInstanceDeathTest, OccurrenceDateAbsentAtItsSecondReadOnly) {
  OccurrenceDateReadOnce event(makeEvent());
  EXPECT_DEATH(VespEventInstance{event}, "requires the event's occurrenceDate");
}

TEST_F(VespEventInstanceDeathTest, ANullElementInAnAlarmList) {
  expectDeath([](MemoryEventFields& f) { f.item.alarms->push_back(nullptr); }, "a platform list requires its elements");
}

TEST_F(VespEventInstanceDeathTest, AbsentOccurrenceDateAtItsOwnStep) {
  expectDeath([](MemoryEventFields& f) { f.occurrenceDate.reset(); }, "requires the event's occurrenceDate");
}
TEST_F(VespEventInstanceDeathTest, AbsentStartDate) {
  expectDeath([](MemoryEventFields& f) { f.startDate.reset(); }, "requires the event's startDate");
}
TEST_F(VespEventInstanceDeathTest, AbsentTitle) {
  expectDeath([](MemoryEventFields& f) { f.item.title.reset(); }, "requires the event's title");
}

}  // namespace
}  // namespace vesp
