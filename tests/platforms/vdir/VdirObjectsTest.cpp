// Each iCalendar property the data model reads, mapped onto the platform objects of the vdir store
// (one golden file per mapping row under tests/data/vdir/mapping).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platforms/vdir/VdirObjects.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::testData;
using testing::utc;

class VdirObjectsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_ = VdirPlatform::make(testing::platformOptions(testData("mapping"), access_.path() / "access.json"));
  }
  std::shared_ptr<platform::EKEvent> event(const std::string& file) {
    auto found = platform_->store()->firstOccurrence("home/" + file);
    EXPECT_NE(found, nullptr) << file;
    return found;
  }
  std::shared_ptr<platform::EKReminder> reminder(const std::string& file) {
    auto found = platform_->store()->reminder("tasks/" + file);
    EXPECT_NE(found, nullptr) << file;
    return found;
  }

  testing::TemporaryDirectory access_;
  std::shared_ptr<VdirPlatform> platform_;
};

TEST_F(VdirObjectsTest, TheGoldenTreeHasNoProblems) { EXPECT_TRUE(platform_->diagnostics().empty()); }

TEST_F(VdirObjectsTest, SummaryIsTheTitleAndUidTheExternalIdentifier) {
  auto summary = event("summary.ics");
  EXPECT_EQ(summary->title(), "Dentist");
  EXPECT_EQ(summary->calendarItemExternalIdentifier(), "summary");
  EXPECT_EQ(summary->eventIdentifier(), "home/summary.ics");
  EXPECT_EQ(summary->calendarItemIdentifier(), "home/summary.ics");
}

TEST_F(VdirObjectsTest, ValuesSetOnARecordAreItsOwnAndAreReadWholeWhileTheyAreSet) {
  auto record = std::dynamic_pointer_cast<VdirEvent>(event("summary.ics"));
  auto other = std::dynamic_pointer_cast<VdirEvent>(event("summary.ics"));
  ASSERT_NE(record, nullptr);
  ASSERT_NE(other, nullptr);
  EXPECT_FALSE(record->setValues().title);
  EXPECT_FALSE(record->setValues().location);
  // One thread sets titles while others read them: each read is the file's title or a whole set one.
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int n = 0; n < 2000; ++n) record->setTitle("Set title number " + std::to_string(n));
    record->setLocation(std::nullopt);
    done = true;
  });
  std::vector<std::thread> readers;
  std::atomic<int> torn{0};
  for (int r = 0; r < 3; ++r)
    readers.emplace_back([&] {
      while (!done) {
        const auto title = record->title().value_or("");
        if (title != "Dentist" && title.rfind("Set title number ", 0) != 0) ++torn;
      }
    });
  writer.join();
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(record->title(), "Set title number 1999");
  EXPECT_EQ(record->location(), std::nullopt);
  ASSERT_TRUE(record->setValues().title);
  EXPECT_EQ(*record->setValues().title, "Set title number 1999");
  EXPECT_FALSE(record->setValues().notes);
  // Another record of the same event keeps reading its file.
  EXPECT_EQ(other->title(), "Dentist");
  EXPECT_FALSE(other->setValues().title);
}

TEST_F(VdirObjectsTest, DtstartAndDtendInAZoneAreInstantsAndTheZoneIsKept) {
  auto summary = event("summary.ics");
  EXPECT_EQ(summary->startDate(), utc(2026, 3, 10, 8));  // 09:00 CET
  EXPECT_EQ(summary->endDate(), utc(2026, 3, 10, 9));
  EXPECT_EQ(summary->occurrenceDate(), utc(2026, 3, 10, 8));
  EXPECT_EQ(summary->timeZone(), platform::TimeZone("Europe/Berlin"));
  EXPECT_FALSE(summary->isAllDay());
  EXPECT_FALSE(summary->isDetached());
}

TEST_F(VdirObjectsTest, DescriptionIsTheNotesWithEscapesResolved) {
  EXPECT_EQ(event("description.ics")->notes(), "Bring the forms, and the card.\nSecond line.");
}

TEST_F(VdirObjectsTest, LocationIsTheLocationText) {
  EXPECT_EQ(event("location.ics")->location(), "Café Central, Vienna");
  EXPECT_EQ(event("location.ics")->structuredLocation(), nullptr);
}

TEST_F(VdirObjectsTest, UrlIsTheLink) {
  EXPECT_EQ(event("url.ics")->URL(), platform::URL("https://example.org/meeting?id=7"));
  EXPECT_EQ(event("summary.ics")->URL(), std::nullopt);
}

TEST_F(VdirObjectsTest, CreatedIsTheCreationDate) {
  EXPECT_EQ(event("created.ics")->creationDate(), utc(2025, 1, 2, 3, 4, 5));
  EXPECT_EQ(event("summary.ics")->creationDate(), std::nullopt);
}

TEST_F(VdirObjectsTest, LastModifiedIsTheLastModifiedDate) {
  EXPECT_EQ(event("last-modified.ics")->lastModifiedDate(), utc(2025, 6, 7, 8, 9, 10));
}

TEST_F(VdirObjectsTest, StatusMapsConfirmedTentativeAndCancelled) {
  EXPECT_EQ(event("status.ics")->status(), 2);
  EXPECT_EQ(event("status-cancelled.ics")->status(), 3);
  EXPECT_EQ(event("summary.ics")->status(), 0);
}

TEST_F(VdirObjectsTest, TranspTransparentIsFreeAndOpaqueIsBusy) {
  EXPECT_EQ(event("transp.ics")->availability(), 1);
  EXPECT_EQ(event("summary.ics")->availability(), 0);
}

TEST_F(VdirObjectsTest, AttendeesCarryNameRoleStatusTypeAndAddress) {
  auto attendees = event("attendee.ics")->attendees();
  ASSERT_TRUE(attendees);
  ASSERT_EQ(attendees->size(), 5u);
  const auto& ann = *(*attendees)[0];
  EXPECT_EQ(ann.name(), "Ann Lee");
  EXPECT_EQ(ann.participantRole(), 2);    // optional
  EXPECT_EQ(ann.participantStatus(), 3);  // declined
  EXPECT_EQ(ann.participantType(), 1);    // person
  EXPECT_EQ(ann.URL(), platform::URL("mailto:ann@example.org"));
  EXPECT_EQ((*attendees)[1]->participantType(), 2);    // room
  EXPECT_EQ((*attendees)[1]->participantRole(), 4);    // non-participant
  EXPECT_EQ((*attendees)[1]->participantStatus(), 2);  // accepted
  EXPECT_EQ((*attendees)[2]->participantType(), 3);    // resource
  EXPECT_EQ((*attendees)[2]->participantRole(), 3);    // chair
  EXPECT_EQ((*attendees)[2]->participantStatus(), 4);  // tentative
  EXPECT_EQ((*attendees)[2]->name(), std::nullopt);
  EXPECT_EQ((*attendees)[3]->participantType(), 4);    // group
  EXPECT_EQ((*attendees)[3]->participantStatus(), 5);  // delegated
  // The defaults: an individual, required, whose answer is pending.
  EXPECT_EQ((*attendees)[4]->participantType(), 1);
  EXPECT_EQ((*attendees)[4]->participantRole(), 1);
  EXPECT_EQ((*attendees)[4]->participantStatus(), 1);
  EXPECT_FALSE((*attendees)[4]->isCurrentUser());
  EXPECT_EQ(event("summary.ics")->attendees(), std::nullopt);
}

TEST_F(VdirObjectsTest, AnAttendeeWithOneOfTheUsersAddressesIsTheCurrentUser) {
  auto options = testing::platformOptions(testData("mapping"), access_.path() / "access.json");
  options.store.userAddresses = {"ME@example.org"};
  auto platform = VdirPlatform::make(options);
  auto attendees = platform->store()->firstOccurrence("home/attendee.ics")->attendees();
  EXPECT_TRUE((*attendees)[4]->isCurrentUser());
  EXPECT_FALSE((*attendees)[0]->isCurrentUser());
}

TEST_F(VdirObjectsTest, OrganizerIsAParticipantWithItsName) {
  auto organizer = event("organizer.ics")->organizer();
  ASSERT_NE(organizer, nullptr);
  EXPECT_EQ(organizer->name(), "Bo Chen");
  EXPECT_EQ(organizer->URL(), platform::URL("mailto:bo@example.org"));
  EXPECT_EQ(event("summary.ics")->organizer(), nullptr);
}

TEST_F(VdirObjectsTest, RelativeTriggersAreOffsetsFromTheStartEvenWhenRelatedToTheEnd) {
  auto alarms = event("alarm-relative.ics")->alarms();
  ASSERT_TRUE(alarms);
  ASSERT_EQ(alarms->size(), 2u);
  EXPECT_EQ((*alarms)[0]->relativeOffset(), -900.0);
  EXPECT_EQ((*alarms)[0]->absoluteDate(), std::nullopt);
  EXPECT_EQ((*alarms)[0]->type(), 0);                  // display
  EXPECT_EQ((*alarms)[1]->relativeOffset(), 3900.0);  // an hour long, five minutes after the end
  EXPECT_EQ((*alarms)[1]->type(), 1);                  // audio
}

TEST_F(VdirObjectsTest, AbsoluteTriggersAreAbsoluteDates) {
  auto alarms = event("alarm-absolute.ics")->alarms();
  ASSERT_TRUE(alarms);
  ASSERT_EQ(alarms->size(), 1u);
  EXPECT_EQ((*alarms)[0]->absoluteDate(), utc(2026, 3, 9, 18));
  EXPECT_EQ((*alarms)[0]->type(), 3);  // email
}

TEST_F(VdirObjectsTest, GeoIsAStructuredLocationTitledByTheLocation) {
  auto location = event("geo.ics")->structuredLocation();
  ASSERT_NE(location, nullptr);
  EXPECT_EQ(location->title(), "Brocken");
  ASSERT_TRUE(location->geoLocation());
  EXPECT_DOUBLE_EQ(location->geoLocation()->latitude(), 51.799);
  EXPECT_DOUBLE_EQ(location->geoLocation()->longitude(), 10.615);
}

TEST_F(VdirObjectsTest, AppleStructuredLocationGivesTitleRadiusAndCoordinates) {
  auto location = event("structured-location.ics")->structuredLocation();
  ASSERT_NE(location, nullptr);
  EXPECT_EQ(location->title(), "King's Cross Station");
  EXPECT_DOUBLE_EQ(location->radius(), 49.5);
  ASSERT_TRUE(location->geoLocation());
  EXPECT_DOUBLE_EQ(location->geoLocation()->latitude(), 51.5308);
  EXPECT_DOUBLE_EQ(location->geoLocation()->longitude(), -0.1238);
}

TEST_F(VdirObjectsTest, TravelDurationIsTheTravelTimeInSeconds) {
  auto travel = event("travel-duration.ics")->valueForKey("travelTime");
  ASSERT_TRUE(travel && travel->number());
  EXPECT_EQ(travel->number()->doubleValue(), 2700.0);
  EXPECT_EQ(event("summary.ics")->valueForKey("travelTime"), std::nullopt);
}

TEST_F(VdirObjectsTest, RrulePartsBecomeTheRecurrenceRule) {
  auto rules = event("rrule.ics")->recurrenceRules();
  ASSERT_TRUE(rules);
  ASSERT_EQ(rules->size(), 1u);
  const auto& rule = *(*rules)[0];
  EXPECT_EQ(rule.frequency(), 2);  // monthly
  EXPECT_EQ(rule.interval(), 2);
  EXPECT_EQ(rule.firstDayOfTheWeek(), 1);  // Sunday
  EXPECT_EQ(rule.calendarIdentifier(), "gregorian");
  auto days = rule.daysOfTheWeek();
  ASSERT_TRUE(days);
  ASSERT_EQ(days->size(), 2u);
  EXPECT_EQ((*days)[0]->dayOfTheWeek(), 2);  // Monday
  EXPECT_EQ((*days)[0]->weekNumber(), 1);
  EXPECT_EQ((*days)[1]->dayOfTheWeek(), 6);  // Friday
  EXPECT_EQ((*days)[1]->weekNumber(), -1);
  ASSERT_TRUE(rule.monthsOfTheYear());
  EXPECT_EQ(rule.monthsOfTheYear()->size(), 2u);
  EXPECT_EQ((*rule.monthsOfTheYear())[1].number()->integerValue(), 5);
  ASSERT_TRUE(rule.setPositions());
  EXPECT_EQ((*rule.setPositions())[0].number()->integerValue(), 1);
  EXPECT_EQ(rule.daysOfTheMonth(), std::nullopt);
  EXPECT_EQ(rule.weeksOfTheYear(), std::nullopt);
  ASSERT_NE(rule.recurrenceEnd(), nullptr);
  EXPECT_EQ(rule.recurrenceEnd()->occurrenceCount(), 4);
  EXPECT_EQ(rule.recurrenceEnd()->endDate(), std::nullopt);
  EXPECT_EQ(event("summary.ics")->recurrenceRules(), std::nullopt);
}

TEST_F(VdirObjectsTest, AllDayEventsSpanLocalMidnights) {
  auto holiday = event("all-day.ics");
  EXPECT_TRUE(holiday->isAllDay());
  EXPECT_EQ(holiday->startDate(), utc(2026, 3, 9, 23));  // 10 March, 00:00 in Berlin
  EXPECT_EQ(holiday->endDate(), utc(2026, 3, 11, 23));
  EXPECT_EQ(holiday->timeZone(), std::nullopt);
}

TEST_F(VdirObjectsTest, FloatingTimesAreLocalTimes) {
  auto wakeUp = event("floating.ics");
  EXPECT_EQ(wakeUp->startDate(), utc(2026, 3, 10, 6));
  EXPECT_EQ(wakeUp->endDate(), utc(2026, 3, 10, 6, 15));
  EXPECT_EQ(wakeUp->timeZone(), std::nullopt);
}

TEST_F(VdirObjectsTest, UtcTimesAreInUtc) {
  auto call = event("utc.ics");
  EXPECT_EQ(call->startDate(), utc(2026, 3, 10, 12));
  EXPECT_EQ(call->timeZone(), platform::TimeZone("UTC"));
}

TEST_F(VdirObjectsTest, CollectionsAreCalendarsWithTitleColourAndSource) {
  auto calendar = event("summary.ics")->calendar();
  ASSERT_NE(calendar, nullptr);
  EXPECT_EQ(calendar->calendarIdentifier(), "home");
  EXPECT_EQ(calendar->title(), "Home");
  ASSERT_NE(calendar->CGColor(), nullptr);
  EXPECT_NEAR(calendar->CGColor()->red(), 0x3A / 255.0, 1e-9);
  EXPECT_NEAR(calendar->CGColor()->green(), 0x87 / 255.0, 1e-9);
  EXPECT_NEAR(calendar->CGColor()->blue(), 0xAD / 255.0, 1e-9);
  EXPECT_EQ(calendar->allowedEntityTypes(), platform::EKEntityMaskEvent);
  EXPECT_TRUE(calendar->allowsContentModifications());  // its directory may be written
  ASSERT_NE(calendar->source(), nullptr);
  EXPECT_EQ(calendar->source()->sourceIdentifier(), ".");
  EXPECT_EQ(calendar->source()->sourceType(), 0);
  EXPECT_EQ(calendar->type(), 0);
}

TEST_F(VdirObjectsTest, ATodoWithADateDueKeepsYearMonthAndDayOnly) {
  auto milk = reminder("due-date.ics");
  EXPECT_EQ(milk->title(), "Buy milk");
  platform::DateComponents due;
  due.year = 2026;
  due.month = 3;
  due.day = 11;
  EXPECT_EQ(milk->dueDateComponents(), due);
  EXPECT_EQ(milk->startDateComponents(), std::nullopt);
  EXPECT_EQ(milk->priority(), 1);
  EXPECT_FALSE(milk->isCompleted());
  EXPECT_EQ(milk->calendar()->allowedEntityTypes(), platform::EKEntityMaskReminder);
}

TEST_F(VdirObjectsTest, ATodoWithZonedTimesKeepsTheirFieldsAndZone) {
  auto call = reminder("due-time.ics");
  platform::DateComponents due;
  due.timeZone = platform::TimeZone("Europe/Berlin");
  due.year = 2026;
  due.month = 3;
  due.day = 10;
  due.hour = 17;
  due.minute = 0;
  due.second = 0;
  EXPECT_EQ(call->dueDateComponents(), due);
  due.hour = 8;
  EXPECT_EQ(call->startDateComponents(), due);
  EXPECT_EQ(call->priority(), 5);
  EXPECT_EQ(call->timeZone(), platform::TimeZone("Europe/Berlin"));
}

TEST_F(VdirObjectsTest, ACompletedTodoHasItsCompletionDate) {
  auto taxes = reminder("completed.ics");
  EXPECT_TRUE(taxes->isCompleted());
  EXPECT_EQ(taxes->completionDate(), utc(2026, 3, 5, 10, 15));
  EXPECT_EQ(taxes->priority(), 9);
  EXPECT_FALSE(reminder("no-due.ics")->isCompleted());
  EXPECT_EQ(reminder("no-due.ics")->dueDateComponents(), std::nullopt);
}

TEST_F(VdirObjectsTest, AMissingFileIsNoEventAndAReminderIsNoEvent) {
  EXPECT_EQ(platform_->store()->firstOccurrence("home/nothing.ics"), nullptr);
  EXPECT_EQ(platform_->store()->firstOccurrence("tasks/due-date.ics"), nullptr);
  EXPECT_EQ(platform_->store()->reminder("home/summary.ics"), nullptr);
}

}  // namespace
}  // namespace vesp::vdir
