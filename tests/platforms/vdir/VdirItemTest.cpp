// Reading one calendar file: what each property becomes, which defaults hold, how several series
// and to-dos in one file are named, and what is repaired, skipped or reported. No store is built:
// the text goes straight to the parser.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "platforms/vdir/VdirItem.h"
#include "platforms/vdir/VdirOutline.h"
#include "platforms/vdir/VdirText.h"
#include "platforms/vdir/VdirZones.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using testing::simpleEvent;
using testing::utc;

const std::string kHead = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\n";
const std::string kTail = "END:VCALENDAR\r\n";

std::string calendar(const std::string& components) { return kHead + components + kTail; }

std::string event(const std::string& uid, const std::string& lines) {
  return "BEGIN:VEVENT\r\n" + (uid.empty() ? std::string() : "UID:" + uid + "\r\n") + "DTSTAMP:20260101T000000Z\r\n" +
         lines + "END:VEVENT\r\n";
}

// One file read in Europe/Berlin by a user whose address is ann@example.org.
struct Read {
  VdirZones zones;
  VdirClock clock{"Europe/Berlin"};
  std::vector<std::string> userAddresses{"ann@example.org"};
  VdirParseResult result;

  explicit Read(const std::string& text, const std::string& path = "work/a.ics") {
    VdirParseContext context;
    context.zones = &zones;
    context.clock = &clock;
    context.userAddresses = &userAddresses;
    context.maximumCountedOccurrences = 1000;
    result = parseItem(path, path.substr(path.rfind('/') + 1), text, context);
  }
  const VdirItem& item() const { return *result.item; }
  const VdirComponentData& master(std::size_t series = 0) const { return *item().series.at(series).master; }
  std::vector<std::string> problems() const {
    std::vector<std::string> texts;
    for (const auto& diagnostic : result.diagnostics) texts.push_back(diagnostic.problem);
    return texts;
  }
  double instant(const VdirTime& time) const { return clock.instant(time).timeIntervalSince1970(); }
};

double seconds(platform::Date date) { return date.timeIntervalSince1970(); }

// Details kept as bytes are decoded once, on the first read, and shared by every copy; an edit
// makes the edited copy's own details and leaves the others as they were.
int detailsDecoded = 0;
VdirComponentDetails titledBy(std::string_view bytes) {
  ++detailsDecoded;
  VdirComponentDetails details;
  details.summary = std::string(bytes);
  return details;
}

TEST(VdirDetailsTest, KeptBytesAreDecodedOnceOnFirstReadAndAnEditMakesAnOwnCopy) {
  const VdirDetails none;
  EXPECT_EQ(none->summary, std::nullopt);
  EXPECT_EQ(none.encoded(), nullptr);

  detailsDecoded = 0;
  const VdirDetails kept("Title", &titledBy);
  ASSERT_NE(kept.encoded(), nullptr);
  EXPECT_EQ(*kept.encoded(), "Title");
  EXPECT_EQ(detailsDecoded, 0);
  VdirDetails copy = kept;
  EXPECT_EQ(copy->summary, "Title");
  EXPECT_EQ(&*copy, &*kept);
  EXPECT_EQ(kept->summary, "Title");
  EXPECT_EQ(detailsDecoded, 1);

  copy.edit().summary = "Changed";
  EXPECT_EQ(copy->summary, "Changed");
  EXPECT_EQ(copy.encoded(), nullptr);
  EXPECT_EQ(kept->summary, "Title");

  VdirDetails alone("Alone", &titledBy);
  alone.edit().description = "Notes";
  EXPECT_EQ(alone->summary, "Alone") << "an edit starts from the decoded details";
  EXPECT_EQ(alone->description, "Notes");
  EXPECT_EQ(alone.encoded(), nullptr);

  VdirDetails read;
  read.edit().summary = "Read";
  VdirDetails other = read;
  other.edit().summary = "Other";
  EXPECT_EQ(read->summary, "Read");
  EXPECT_EQ(other->summary, "Other");
}

TEST(VdirItemTest, TheTextsAndDatesOfAnEventAreRead) {
  Read read(calendar(event("e1",
                           "SUMMARY:Standup\r\nDESCRIPTION:Line one\\nline two\\, with a comma\r\n"
                           "LOCATION:Room 4\r\nURL:https://example.org/standup\r\n"
                           "CREATED:20260101T080000Z\r\nLAST-MODIFIED:20260102T090000Z\r\n"
                           "DTSTART:20260310T090000Z\r\nDTEND:20260310T093000Z\r\n")));
  ASSERT_NE(read.result.item, nullptr);
  EXPECT_TRUE(read.result.diagnostics.empty());
  ASSERT_EQ(read.item().series.size(), 1u);
  const auto& data = read.master();
  EXPECT_EQ(data.uid, "e1");
  EXPECT_EQ(data.details->summary, "Standup");
  EXPECT_EQ(data.details->description, "Line one\nline two, with a comma");
  EXPECT_EQ(data.details->location, "Room 4");
  EXPECT_EQ(data.details->url, "https://example.org/standup");
  EXPECT_EQ(data.details->created, utc(2026, 1, 1, 8));
  EXPECT_EQ(data.details->lastModified, utc(2026, 1, 2, 9));
  EXPECT_EQ(data.start.kind, VdirTime::Kind::utc);
  EXPECT_EQ(read.instant(data.start), seconds(utc(2026, 3, 10, 9)));
  EXPECT_EQ(data.durationSeconds, 1800.0);
  EXPECT_EQ(data.details->timeZoneName, "UTC");
  EXPECT_EQ(data.status, platform::EKEventStatusNone);
  EXPECT_EQ(data.availability, platform::EKEventAvailabilityBusy);
  EXPECT_EQ(read.item().series[0].identifier, "work/a.ics");
}

// A UID is text, as a SUMMARY is: its escapes are read, and a master and its override whose UIDs
// are written with and without an escape are one series.
TEST(VdirItemTest, AUidIsReadAsTextWithItsEscapes) {
  Read read(calendar(event("line\\nbreak\\, and\\;more\\\\", "SUMMARY:S\r\nDTSTART:20260310T090000Z\r\n"
                                                               "RRULE:FREQ=DAILY;COUNT=3\r\n") +
                     event("line\\nbreak, and;more\\\\", "SUMMARY:Moved\r\nRECURRENCE-ID:20260311T090000Z\r\n"
                                                           "DTSTART:20260311T100000Z\r\n")));
  ASSERT_NE(read.result.item, nullptr);
  EXPECT_THAT(read.problems(), ::testing::IsEmpty());
  ASSERT_EQ(read.item().series.size(), 1u);
  EXPECT_EQ(read.master().uid, "line\nbreak, and;more\\");
  ASSERT_EQ(read.item().series[0].overrides.size(), 1u);
  EXPECT_EQ(read.item().series[0].overrides[0].uid, read.master().uid);
}

TEST(VdirItemTest, StatusAndAvailabilityAreMappedByName) {
  auto read = [](const std::string& lines) {
    Read parsed(calendar(event("e", "SUMMARY:S\r\nDTSTART:20260310T090000Z\r\n" + lines)));
    return std::make_pair(parsed.master().status, parsed.master().availability);
  };
  EXPECT_EQ(read("STATUS:CONFIRMED\r\n").first, platform::EKEventStatusConfirmed);
  EXPECT_EQ(read("STATUS:TENTATIVE\r\n").first, platform::EKEventStatusTentative);
  EXPECT_EQ(read("STATUS:CANCELLED\r\n").first, platform::EKEventStatusCanceled);
  EXPECT_EQ(read("TRANSP:TRANSPARENT\r\n").second, platform::EKEventAvailabilityFree);
  EXPECT_EQ(read("TRANSP:OPAQUE\r\n").second, platform::EKEventAvailabilityBusy);
  EXPECT_EQ(read("X-MICROSOFT-CDO-BUSYSTATUS:TENTATIVE\r\n").second, platform::EKEventAvailabilityTentative);
  EXPECT_EQ(read("X-MICROSOFT-CDO-BUSYSTATUS:OOF\r\n").second, platform::EKEventAvailabilityUnavailable);
  // The more precise Microsoft status wins over TRANSP.
  EXPECT_EQ(read("TRANSP:OPAQUE\r\nX-MICROSOFT-CDO-BUSYSTATUS:FREE\r\n").second, platform::EKEventAvailabilityFree);
}

TEST(VdirItemTest, ParticipantsTakeTheRfcDefaultsUnlessTheySayOtherwise) {
  Read read(calendar(event("e",
                           "SUMMARY:S\r\nDTSTART:20260310T090000Z\r\n"
                           "ORGANIZER;CN=Bo:mailto:bo@example.org\r\n"
                           "ATTENDEE:mailto:cy@example.org\r\n"
                           "ATTENDEE;CN=Ann;ROLE=CHAIR;PARTSTAT=ACCEPTED;CUTYPE=INDIVIDUAL:mailto:Ann@Example.ORG\r\n"
                           "ATTENDEE;ROLE=OPT-PARTICIPANT;PARTSTAT=DECLINED;CUTYPE=ROOM:mailto:room4@example.org\r\n"
                           "ATTENDEE;ROLE=NON-PARTICIPANT;PARTSTAT=TENTATIVE;CUTYPE=RESOURCE:mailto:beamer@example.org\r\n"
                           "ATTENDEE;PARTSTAT=DELEGATED;CUTYPE=GROUP:mailto:team@example.org\r\n")));
  const auto& data = read.master();
  ASSERT_TRUE(data.details->organizer);
  EXPECT_EQ(data.details->organizer->name, "Bo");
  EXPECT_EQ(data.details->organizer->address, "mailto:bo@example.org");
  EXPECT_EQ(data.details->organizer->role, platform::EKParticipantRoleUnknown);
  EXPECT_EQ(data.details->organizer->status, platform::EKParticipantStatusUnknown);
  EXPECT_FALSE(data.details->organizer->isCurrentUser);
  ASSERT_EQ(data.details->attendees.size(), 5u);
  const auto& plain = data.details->attendees[0];
  EXPECT_EQ(plain.name, std::nullopt);
  EXPECT_EQ(plain.role, platform::EKParticipantRoleRequired);
  EXPECT_EQ(plain.status, platform::EKParticipantStatusPending);
  EXPECT_EQ(plain.type, platform::EKParticipantTypePerson);
  const auto& ann = data.details->attendees[1];
  EXPECT_EQ(ann.role, platform::EKParticipantRoleChair);
  EXPECT_EQ(ann.status, platform::EKParticipantStatusAccepted);
  EXPECT_TRUE(ann.isCurrentUser);  // addresses compare without regard to case
  EXPECT_EQ(data.details->attendees[2].role, platform::EKParticipantRoleOptional);
  EXPECT_EQ(data.details->attendees[2].status, platform::EKParticipantStatusDeclined);
  EXPECT_EQ(data.details->attendees[2].type, platform::EKParticipantTypeRoom);
  EXPECT_EQ(data.details->attendees[3].role, platform::EKParticipantRoleNonParticipant);
  EXPECT_EQ(data.details->attendees[3].status, platform::EKParticipantStatusTentative);
  EXPECT_EQ(data.details->attendees[3].type, platform::EKParticipantTypeResource);
  EXPECT_EQ(data.details->attendees[4].status, platform::EKParticipantStatusDelegated);
  EXPECT_EQ(data.details->attendees[4].type, platform::EKParticipantTypeGroup);
}

TEST(VdirItemTest, AlarmsAreRelativeToTheStartOrAtAnInstant) {
  Read read(calendar(event("e",
                           "SUMMARY:S\r\nDTSTART:20260310T090000Z\r\nDTEND:20260310T100000Z\r\n"
                           "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:x\r\nTRIGGER:-PT15M\r\nEND:VALARM\r\n"
                           "BEGIN:VALARM\r\nACTION:AUDIO\r\nTRIGGER;RELATED=END:-PT5M\r\nEND:VALARM\r\n"
                           "BEGIN:VALARM\r\nACTION:EMAIL\r\nSUMMARY:s\r\nDESCRIPTION:d\r\n"
                           "ATTENDEE:mailto:ann@example.org\r\nTRIGGER;VALUE=DATE-TIME:20260309T180000Z\r\nEND:VALARM\r\n"
                           "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:x\r\nTRIGGER:PT0S\r\n"
                           "X-APPLE-PROXIMITY:ARRIVE\r\nEND:VALARM\r\n"
                           "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:no trigger\r\nEND:VALARM\r\n")));
  const auto& alarms = read.master().details->alarms;
  ASSERT_EQ(alarms.size(), 4u);
  EXPECT_EQ(alarms[0].relativeOffset, -900.0);
  EXPECT_EQ(alarms[0].type, platform::EKAlarmTypeDisplay);
  EXPECT_EQ(alarms[1].relativeOffset, 3600.0 - 300.0);  // moved from the end to the start
  EXPECT_EQ(alarms[1].type, platform::EKAlarmTypeAudio);
  EXPECT_EQ(alarms[2].absoluteDate, utc(2026, 3, 9, 18));
  EXPECT_EQ(alarms[2].type, platform::EKAlarmTypeEmail);
  EXPECT_EQ(alarms[3].proximity, platform::EKAlarmProximityEnter);
  EXPECT_THAT(read.problems(), Contains("VALARM without TRIGGER ignored"));
}

TEST(VdirItemTest, AnEventLastsUntilItsEndForItsDurationOrOneDay) {
  auto read = [](const std::string& lines) { return Read(calendar(event("e", "SUMMARY:S\r\n" + lines))); };
  EXPECT_EQ(read("DTSTART:20260310T090000Z\r\nDURATION:PT1H30M\r\n").master().durationSeconds, 5400.0);
  Read allDay = read("DTSTART;VALUE=DATE:20260310\r\n");
  EXPECT_TRUE(allDay.master().start.isDate());
  EXPECT_EQ(allDay.master().durationDays, 1);
  EXPECT_EQ(allDay.master().details->timeZoneName, std::nullopt);
  EXPECT_EQ(read("DTSTART;VALUE=DATE:20260310\r\nDTEND;VALUE=DATE:20260313\r\n").master().durationDays, 3);
  EXPECT_EQ(read("DTSTART;VALUE=DATE:20260310\r\nDURATION:P2D\r\n").master().durationDays, 2);
  // Across the spring change in Berlin a floating day-long meeting lasts 23 hours of real time.
  EXPECT_EQ(read("DTSTART:20260328T120000\r\nDTEND:20260329T120000\r\n").master().durationSeconds, 23 * 3600.0);
  Read backwards = read("DTSTART:20260310T090000Z\r\nDTEND:20260310T080000Z\r\n");
  EXPECT_EQ(backwards.master().durationSeconds, 0.0);
  EXPECT_THAT(backwards.problems(), Contains(HasSubstr("ends before it starts")));
}

TEST(VdirItemTest, ZonesComeFromTheFileOrFromTheSystemByName) {
  const std::string definition =
      "BEGIN:VTIMEZONE\r\nTZID:Custom Berlin\r\n"
      "BEGIN:STANDARD\r\nDTSTART:19701025T030000\r\nRRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\n"
      "TZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nEND:STANDARD\r\n"
      "BEGIN:DAYLIGHT\r\nDTSTART:19700329T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\n"
      "TZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\nEND:DAYLIGHT\r\nEND:VTIMEZONE\r\n";
  Read read(kHead + definition +
            event("defined", "SUMMARY:S\r\nDTSTART;TZID=Custom Berlin:20260710T090000\r\n") +
            event("named", "SUMMARY:S\r\nDTSTART;TZID=America/New_York:20260710T090000\r\n") +
            event("prefixed",
                  "SUMMARY:S\r\nDTSTART;TZID=/freeassociation.sourceforge.net/Asia/Tokyo:20260710T090000\r\n") +
            event("unknown", "SUMMARY:S\r\nDTSTART;TZID=Mars/Olympus_Mons:20260710T090000\r\n") + kTail);
  ASSERT_EQ(read.item().series.size(), 4u);
  EXPECT_EQ(read.instant(read.master(0).start), seconds(utc(2026, 7, 10, 7)));
  EXPECT_EQ(read.master(1).start.kind, VdirTime::Kind::zoned);
  EXPECT_EQ(read.master(1).details->timeZoneName, "America/New_York");
  EXPECT_EQ(read.instant(read.master(1).start), seconds(utc(2026, 7, 10, 13)));
  EXPECT_EQ(read.master(2).details->timeZoneName, "Asia/Tokyo");
  EXPECT_EQ(read.instant(read.master(2).start), seconds(utc(2026, 7, 10, 0)));
  // An unknown zone is read as local (floating) time and said.
  EXPECT_EQ(read.master(3).start.kind, VdirTime::Kind::floating);
  EXPECT_EQ(read.instant(read.master(3).start), seconds(utc(2026, 7, 10, 7)));
  EXPECT_THAT(read.problems(), Contains(HasSubstr("unknown time zone \"Mars/Olympus_Mons\"")));
}

// Files read one after another into one store's zones, as a store reads them.
struct ReadInto {
  VdirZones& zones;
  VdirClock clock{"Europe/Berlin"};
  VdirParseResult result;

  ReadInto(VdirZones& into, const std::string& text, VdirKnownLines* knownLines = nullptr) : zones(into) {
    VdirParseContext context;
    context.zones = &zones;
    context.clock = &clock;
    context.knownLines = knownLines;
    result = parseItem("work/a.ics", "a.ics", text, context);
  }
  const VdirComponentData& master() const { return *result.item->series.at(0).master; }
  std::vector<std::string> problems() const {
    std::vector<std::string> texts;
    for (const auto& diagnostic : result.diagnostics) texts.push_back(diagnostic.problem);
    return texts;
  }
};

const std::string kCustomBerlin =
    "BEGIN:VTIMEZONE\r\nTZID:Custom Berlin\r\n"
    "BEGIN:STANDARD\r\nDTSTART:19701025T030000\r\nRRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\n"
    "TZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nEND:STANDARD\r\n"
    "BEGIN:DAYLIGHT\r\nDTSTART:19700329T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\n"
    "TZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\nEND:DAYLIGHT\r\nEND:VTIMEZONE";

TEST(VdirItemTest, AZoneDefinitionThatParsedCleanlyServesTheNextFilesThatCarryIt) {
  VdirZones zones;
  const std::string summer = event("s", "SUMMARY:S\r\nDTSTART;TZID=Custom Berlin:20260710T090000\r\n");
  const std::string winter = event("w", "SUMMARY:W\r\nDTSTART;TZID=Custom Berlin:20260110T090000\r\n");
  EXPECT_FALSE(zones.parsedCleanly("Custom Berlin", kCustomBerlin));
  ReadInto first(zones, kHead + kCustomBerlin + "\r\n" + summer + kTail);
  ASSERT_NE(first.result.item, nullptr);
  auto clean = zones.parsedCleanly("Custom Berlin", kCustomBerlin);
  ASSERT_TRUE(clean);
  EXPECT_EQ(clean->first, first.master().start.zone);
  // The next files take that zone, wherever the definition stands among their components.
  for (const std::string& text : {kHead + kCustomBerlin + "\r\n" + winter + kTail,
                                  kHead + winter + kCustomBerlin + "\r\n" + kTail,
                                  kHead + winter + kCustomBerlin + "\r\n" + kTail.substr(0, kTail.size() - 2)}) {
    ReadInto next(zones, text);
    ASSERT_NE(next.result.item, nullptr);
    EXPECT_EQ(next.master().start.zone, first.master().start.zone);
    EXPECT_EQ(next.master().details->timeZoneName, "Custom Berlin");
    EXPECT_EQ(next.clock.instant(next.master().start).timeIntervalSince1970(), seconds(utc(2026, 1, 10, 8)));
    EXPECT_THAT(next.problems(), ::testing::IsEmpty());
  }
  // A copy inside an event is not the file's definition: the parser never reads it as one.
  ReadInto nested(zones, kHead + "BEGIN:VEVENT\r\nUID:n\r\nDTSTART;TZID=Custom Berlin:20260110T090000\r\n" +
                             kCustomBerlin + "\r\nEND:VEVENT\r\n" + kTail);
  ASSERT_NE(nested.result.item, nullptr);
  EXPECT_EQ(nested.master().start.kind, VdirTime::Kind::floating);
  EXPECT_THAT(nested.problems(), Contains(HasSubstr("unknown time zone \"Custom Berlin\"")));
}

TEST(VdirItemTest, AZoneDefinitionWithErrorsIsParsedAndReportedInEveryFile) {
  VdirZones zones;
  std::string damaged = kCustomBerlin;
  damaged.insert(damaged.find("END:STANDARD"), "TZOFFSETTO;VALUE=INTEGER:often\r\n");
  const std::string text =
      kHead + damaged + "\r\n" + event("s", "SUMMARY:S\r\nDTSTART;TZID=Custom Berlin:20260710T090000\r\n") + kTail;
  for (int file = 0; file < 2; ++file) {
    ReadInto read(zones, text);
    ASSERT_NE(read.result.item, nullptr);
    EXPECT_THAT(read.problems(), Contains(HasSubstr("unreadable content ignored"))) << "file " << file;
    EXPECT_FALSE(zones.parsedCleanly("Custom Berlin", damaged));
  }
}

TEST(VdirItemTest, ADefinitionThatGivesNoZoneLeavesEveryFileToTheZoneOfItsName) {
  VdirZones zones;
  // No observance: unusable, so the system's zone of that name serves.
  const std::string unusable = "BEGIN:VTIMEZONE\r\nTZID:America/New_York\r\nEND:VTIMEZONE";
  const std::string text =
      kHead + unusable + "\r\n" + event("s", "SUMMARY:S\r\nDTSTART;TZID=America/New_York:20260710T090000\r\n") +
      kTail;
  for (int file = 0; file < 2; ++file) {
    ReadInto read(zones, text);
    ASSERT_NE(read.result.item, nullptr);
    EXPECT_EQ(read.master().start.kind, VdirTime::Kind::zoned) << "file " << file;
    EXPECT_EQ(read.clock.instant(read.master().start).timeIntervalSince1970(), seconds(utc(2026, 7, 10, 13)));
    EXPECT_FALSE(zones.parsedCleanly("America/New_York", unusable));
  }
}

TEST(VdirItemTest, CalendarLinesThatParsedCleanlyAreKnownToTheNextFiles) {
  VdirZones zones;
  VdirKnownLines known;
  const std::string lines = "VERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nX-WR-CALNAME:Work\r\n  and more\r\n";
  const std::string text =
      "BEGIN:VCALENDAR\r\n" + lines + event("e", "SUMMARY:S\r\nDTSTART:20260310T090000Z\r\n") + kTail;
  ReadInto first(zones, text, &known);
  ASSERT_NE(first.result.item, nullptr);
  EXPECT_TRUE(known.contains("VERSION:2.0"));
  EXPECT_TRUE(known.contains("PRODID:-//Vesp tests//EN"));
  EXPECT_TRUE(known.contains("X-WR-CALNAME:Work\r\n  and more"));
  EXPECT_FALSE(known.contains("SUMMARY:S"));
  ReadInto next(zones, text, &known);
  ASSERT_NE(next.result.item, nullptr);
  EXPECT_EQ(next.master().details->summary, "S");
  EXPECT_THAT(next.problems(), ::testing::IsEmpty());
}

TEST(VdirItemTest, ACalendarWithAnErrorTeachesNoLineAndReportsItInEveryFile) {
  VdirZones zones;
  VdirKnownLines known;
  const std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nCALSCALE;VALUE=INTEGER:often\r\n" +
                           event("e", "SUMMARY:S\r\nDTSTART:20260310T090000Z\r\n") + kTail;
  for (int file = 0; file < 2; ++file) {
    ReadInto read(zones, text, &known);
    ASSERT_NE(read.result.item, nullptr);
    EXPECT_THAT(read.problems(), Contains(HasSubstr("unreadable content ignored"))) << "file " << file;
    EXPECT_FALSE(known.contains("VERSION:2.0"));
  }
}

TEST(VdirItemTest, KnownLinesAreFewAndShort) {
  VdirKnownLines known;
  known.add(std::string(256, 'X'));
  known.add(std::string(257, 'Y'));
  EXPECT_TRUE(known.contains(std::string(256, 'X')));
  EXPECT_FALSE(known.contains(std::string(257, 'Y')));
  for (int i = 0; i < 1100; ++i) known.add("X-LINE:" + std::to_string(i));
  EXPECT_TRUE(known.contains("X-LINE:1022"));
  EXPECT_FALSE(known.contains("X-LINE:1023"));
}

TEST(VdirItemTest, ADayItsMonthDoesNotHaveIsReadAsTheDayItRunsIntoAndSaid) {
  Read read(calendar(event("feb", "SUMMARY:S\r\nDTSTART;TZID=Europe/Berlin:20260230T100000\r\n"
                                  "RRULE:FREQ=WEEKLY;COUNT=2\r\nEXDATE;TZID=Europe/Berlin:20270231T100000\r\n")));
  ASSERT_NE(read.result.item, nullptr);
  EXPECT_EQ(read.master().start.local.month, 3);
  EXPECT_EQ(read.master().start.local.day, 2);
  EXPECT_EQ(read.instant(read.master().start), seconds(utc(2026, 3, 2, 9)));
  ASSERT_EQ(read.item().series[0].exdates.size(), 1u);
  EXPECT_EQ(read.item().series[0].exdates[0], seconds(utc(2027, 3, 3, 9)));
  EXPECT_THAT(read.problems(), Contains("DTSTART names a day its month does not have: read as the day it runs into"));
  EXPECT_THAT(read.problems(), Contains("EXDATE names a day its month does not have: read as the day it runs into"));
}

TEST(VdirItemTest, ASixtiethSecondIsReadAsTheNextMinutesFirstAndSaid) {
  Read read(calendar(event("leap", "SUMMARY:S\r\nDTSTART;TZID=Europe/Berlin:20261231T235960\r\n"
                                   "DTEND;TZID=Europe/Berlin:20270101T010000\r\n")));
  ASSERT_NE(read.result.item, nullptr);
  EXPECT_EQ(read.master().start.local.year, 2027);
  EXPECT_EQ(read.master().start.local.hour, 0);
  EXPECT_EQ(read.master().start.local.second, 0);
  EXPECT_EQ(read.instant(read.master().start), seconds(utc(2026, 12, 31, 23)));
  EXPECT_EQ(read.master().durationSeconds, 3600.0);
  EXPECT_THAT(read.problems(), Contains("DTSTART names a 60th second: read as the next minute's first"));
}

TEST(VdirItemTest, SeveralSeriesAndToDosInOneFileAreNamedByPathThenUid) {
  Read read(calendar(event("one", "SUMMARY:One\r\nDTSTART:20260310T090000Z\r\n") +
                     event("two", "SUMMARY:Two\r\nDTSTART:20260311T090000Z\r\n") +
                     event("two", "SUMMARY:Two again\r\nDTSTART:20260312T090000Z\r\n") +
                     "BEGIN:VTODO\r\nUID:task\r\nSUMMARY:Task\r\nEND:VTODO\r\n"
                     "BEGIN:VTODO\r\nUID:one\r\nSUMMARY:Same UID as an event\r\nEND:VTODO\r\n"),
            "c/export.ics");
  ASSERT_EQ(read.item().series.size(), 2u);
  EXPECT_EQ(read.item().series[0].identifier, "c/export.ics");
  EXPECT_EQ(read.item().series[1].identifier, "c/export.ics#two");
  EXPECT_EQ(read.master(1).details->summary, "Two");  // the first master of a UID is served
  EXPECT_THAT(read.problems(), Contains(HasSubstr("has 2 master VEVENTs: only the first is served")));
  ASSERT_EQ(read.item().todos.size(), 2u);
  EXPECT_EQ(read.item().todos[0].todoData->identifier, "c/export.ics#task");
  EXPECT_EQ(read.item().todos[1].todoData->identifier, "c/export.ics#one");
}

TEST(VdirItemTest, AMissingUidOrSummaryIsRepairedAndSaid) {
  Read read(calendar(event("", "DTSTART:20260310T090000Z\r\n")), "c/no-uid.ics");
  ASSERT_NE(read.result.item, nullptr);
  EXPECT_EQ(read.master().uid, "no-uid.ics");
  EXPECT_EQ(read.master().details->summary, std::nullopt);
  EXPECT_THAT(read.problems(), Contains("VEVENT has no UID: the file name stands in"));
  EXPECT_THAT(read.problems(), Contains(HasSubstr("has no SUMMARY: shown untitled")));
  for (const auto& diagnostic : read.result.diagnostics) {
    EXPECT_EQ(diagnostic.path, "c/no-uid.ics");
    EXPECT_EQ(diagnostic.action, VdirDiagnostic::Action::repaired);
  }
}

TEST(VdirItemTest, OverridesAreSortedAndAFileOfOverridesAloneHasNoMaster) {
  Read read(calendar(event("s", "SUMMARY:Moved\r\nRECURRENCE-ID:20260317T090000Z\r\nDTSTART:20260317T110000Z\r\n") +
                     event("s", "SUMMARY:Moved too\r\nRECURRENCE-ID:20260310T090000Z\r\nDTSTART:20260310T100000Z\r\n")));
  ASSERT_EQ(read.item().series.size(), 1u);
  const auto& series = read.item().series[0];
  EXPECT_FALSE(series.master);
  EXPECT_FALSE(series.isRecurring());
  ASSERT_EQ(series.overrides.size(), 2u);
  EXPECT_EQ(series.overrides[0].recurrenceInstant, utc(2026, 3, 10, 9));
  EXPECT_EQ(series.overrides[1].recurrenceInstant, utc(2026, 3, 17, 9));
}

TEST(VdirItemTest, RulesDatesAndBoundsOfASeriesAreRead) {
  Read counted(calendar(event("c",
                              "SUMMARY:S\r\nDTSTART:20260302T090000Z\r\nDURATION:PT1H\r\n"
                              "RRULE:FREQ=WEEKLY;COUNT=4\r\nEXDATE;VALUE=DATE:20260309\r\n"
                              "RDATE:20260401T120000Z\r\n")));
  const auto& series = counted.item().series[0];
  EXPECT_TRUE(series.isRecurring());
  ASSERT_EQ(series.rules.size(), 1u);
  ASSERT_TRUE(series.rules[0].countedStarts);
  EXPECT_EQ(*series.rules[0].countedStarts,
            (std::vector<double>{seconds(utc(2026, 3, 2, 9)), seconds(utc(2026, 3, 9, 9)), seconds(utc(2026, 3, 16, 9)),
                                 seconds(utc(2026, 3, 23, 9))}));
  // A DATE exclusion of a timed series excludes that day's occurrence, at the series' time.
  EXPECT_EQ(series.exdates, std::vector<double>{seconds(utc(2026, 3, 9, 9))});
  ASSERT_EQ(series.rdates.size(), 1u);
  EXPECT_EQ(counted.instant(series.rdates[0]), seconds(utc(2026, 4, 1, 12)));
  // Bounds hold every occurrence, with two days to spare either side.
  EXPECT_EQ(series.firstStart, seconds(utc(2026, 2, 28, 9)));
  ASSERT_TRUE(series.lastEnd);
  EXPECT_EQ(*series.lastEnd, seconds(utc(2026, 4, 3, 13)));

  Read until(calendar(event("u", "SUMMARY:S\r\nDTSTART:20260302T090000Z\r\nRRULE:FREQ=DAILY;UNTIL=20260310T090000Z\r\n")));
  EXPECT_EQ(until.item().series[0].rules[0].until, utc(2026, 3, 10, 9));
  EXPECT_FALSE(until.item().series[0].rules[0].countedStarts);
  Read endless(calendar(event("x", "SUMMARY:S\r\nDTSTART:20260302T090000Z\r\nRRULE:FREQ=MONTHLY\r\n")));
  EXPECT_FALSE(endless.item().series[0].lastEnd);
}

TEST(VdirItemTest, ACountedRuleIsCutAtTheLimitAndSaid) {
  Read read(calendar(event("c", "SUMMARY:S\r\nDTSTART:20260302T090000Z\r\nRRULE:FREQ=DAILY;COUNT=5000\r\n")));
  ASSERT_TRUE(read.item().series[0].rules[0].countedStarts);
  EXPECT_EQ(read.item().series[0].rules[0].countedStarts->size(), 1000u);
  ASSERT_EQ(read.result.diagnostics.size(), 1u);
  EXPECT_EQ(read.result.diagnostics[0].action, VdirDiagnostic::Action::truncated);
  EXPECT_THAT(read.result.diagnostics[0].problem, HasSubstr("served for its first 1000 occurrences only"));
}

TEST(VdirItemTest, AToDoKeepsItsDueDateCompletionAndPriority) {
  Read read(calendar("BEGIN:VTODO\r\nUID:a\r\nSUMMARY:A\r\nDUE;TZID=America/New_York:20260315T170000\r\n"
                     "COMPLETED:20260314T100000Z\r\nPRIORITY:1\r\nEND:VTODO\r\n"
                     "BEGIN:VTODO\r\nUID:b\r\nSUMMARY:B\r\nDUE;VALUE=DATE:20260316\r\nSTATUS:COMPLETED\r\n"
                     "PRIORITY:12\r\nEND:VTODO\r\n"
                     "BEGIN:VTODO\r\nUID:c\r\nSUMMARY:C\r\nEND:VTODO\r\n"));
  ASSERT_EQ(read.item().todos.size(), 3u);
  const auto& a = *read.item().todos[0].todoData;
  EXPECT_EQ(a.dueInstant, utc(2026, 3, 15, 21));
  EXPECT_EQ(read.item().todos[0].details->timeZoneName, "America/New_York");
  EXPECT_EQ(a.completed, utc(2026, 3, 14, 10));
  EXPECT_TRUE(a.isCompleted);
  EXPECT_EQ(a.priority, 1);
  const auto& b = *read.item().todos[1].todoData;
  EXPECT_TRUE(b.due && b.due->isDate());
  EXPECT_EQ(b.dueInstant, utc(2026, 3, 15, 23));  // local midnight in Berlin
  EXPECT_TRUE(b.isCompleted);                     // by its status, without a completion date
  EXPECT_EQ(b.completed, std::nullopt);
  EXPECT_EQ(b.priority, 0);
  EXPECT_THAT(read.problems(), Contains("PRIORITY 12 outside 0-9: read as none"));
  const auto& c = *read.item().todos[2].todoData;
  EXPECT_FALSE(c.due);
  EXPECT_FALSE(c.isCompleted);
  EXPECT_TRUE(read.item().series.empty());
}

TEST(VdirItemTest, AToDosRuleIsReadFromItsStartOrItsDueDate) {
  Read read(calendar("BEGIN:VTODO\r\nUID:a\r\nSUMMARY:A\r\nDTSTART:20260302T090000Z\r\nDUE:20260302T170000Z\r\n"
                     "RRULE:FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,TH;UNTIL=20260430T090000Z\r\nEND:VTODO\r\n"
                     "BEGIN:VTODO\r\nUID:b\r\nSUMMARY:B\r\nDUE;VALUE=DATE:20260316\r\nRRULE:FREQ=MONTHLY;COUNT=3\r\n"
                     "END:VTODO\r\n"
                     "BEGIN:VTODO\r\nUID:c\r\nSUMMARY:C\r\nRRULE:FREQ=DAILY\r\nEND:VTODO\r\n"
                     "BEGIN:VTODO\r\nUID:d\r\nSUMMARY:D\r\nDUE;VALUE=DATE:20260302\r\nRRULE:FREQ=HOURLY\r\n"
                     "END:VTODO\r\n"));
  ASSERT_EQ(read.item().todos.size(), 4u);
  const auto& a = read.item().todos[0].todoData->rules;
  ASSERT_EQ(a.size(), 1u);
  const icalrecurrencetype rule = a[0].rule.expanded();
  EXPECT_EQ(rule.freq, ICAL_WEEKLY_RECURRENCE);
  EXPECT_EQ(rule.interval, 2);
  EXPECT_EQ(a[0].until, utc(2026, 4, 30, 9));
  const auto& b = read.item().todos[1].todoData->rules;
  ASSERT_EQ(b.size(), 1u);
  EXPECT_EQ(b[0].rule.count(), 3);
  ASSERT_TRUE(b[0].countedStarts);
  EXPECT_EQ(b[0].countedStarts->size(), 3u);
  EXPECT_EQ(b[0].countedStarts->front(), seconds(utc(2026, 3, 15, 23)));  // from the due day's local midnight
  EXPECT_TRUE(read.item().todos[2].todoData->rules.empty());
  EXPECT_THAT(read.problems(), Contains("RRULE of a to-do without DTSTART or DUE: ignored"));
  EXPECT_TRUE(read.item().todos[3].todoData->rules.empty());
  EXPECT_THAT(read.problems(), Contains(HasSubstr("RRULE \"FREQ=HOURLY\"")));  // a sub-daily rule on a day
  EXPECT_TRUE(read.item().series.empty());
}

TEST(VdirItemTest, PlacesAndTravelTimeAreRead) {
  Read read(calendar(event("e",
                           "SUMMARY:S\r\nDTSTART:20260310T090000Z\r\nLOCATION:Town hall\r\nGEO:52.52;13.405\r\n"
                           "X-APPLE-TRAVEL-DURATION;VALUE=DURATION:PT30M\r\n") +
                     event("f", "SUMMARY:S\r\nDTSTART:20260310T090000Z\r\nGEO:95;13\r\n") +
                     event("g", "SUMMARY:S\r\nDTSTART:20260310T090000Z\r\nX-APPLE-TRAVEL-DURATION:soon\r\n")));
  const auto& place = read.master(0).details->structuredLocation;
  ASSERT_NE(place, nullptr);
  EXPECT_EQ(place->title, "Town hall");
  EXPECT_DOUBLE_EQ(place->latitude.value_or(0), 52.52);
  EXPECT_DOUBLE_EQ(place->longitude.value_or(0), 13.405);
  EXPECT_EQ(read.master(0).details->travelTime, 1800.0);
  EXPECT_EQ(read.master(1).details->structuredLocation, nullptr);
  EXPECT_EQ(read.master(2).details->travelTime, std::nullopt);
  EXPECT_THAT(read.problems(), Contains("GEO outside the globe ignored"));
  EXPECT_THAT(read.problems(), Contains("X-APPLE-TRAVEL-DURATION \"soon\" is not a duration"));
}

TEST(VdirItemTest, WhatCannotBeServedGivesNoItemAndSaysWhy) {
  auto problemsOf = [](const std::string& text) {
    Read read(text);
    EXPECT_EQ(read.result.item, nullptr) << text;
    return read.problems();
  };
  EXPECT_THAT(problemsOf(std::string("BEGIN:VCALENDAR\r\n\0\0\0", 20)), Contains("not an iCalendar file (binary content)"));
  EXPECT_THAT(problemsOf("hello, world\n"), Contains(HasSubstr("not an iCalendar file")));
  EXPECT_THAT(problemsOf(calendar("BEGIN:VJOURNAL\r\nUID:j\r\nEND:VJOURNAL\r\n")),
              Contains("no VEVENT or VTODO in the file"));
  auto noStart = problemsOf(calendar(event("e", "SUMMARY:S\r\n")));
  EXPECT_THAT(noStart, Contains("VEVENT \"e\" has no DTSTART"));
  EXPECT_THAT(noStart, ::testing::Not(Contains("no VEVENT or VTODO in the file")));
  EXPECT_THAT(problemsOf(calendar(event("e", "SUMMARY:S\r\nDTSTART:20261345T250000Z\r\n"))),
              Contains("VEVENT \"e\" has no valid DTSTART"));
}

TEST(VdirItemTest, AFileCutShortIsClosedAndReadAgain) {
  std::string whole = simpleEvent("cut", "Cut short", "20260310T090000Z", "20260310T100000Z", "LOCATION:Somewhere\r\n");
  // Cut in the middle of the LOCATION line: that line is dropped, the rest served.
  std::string cut = whole.substr(0, whole.find("LOCATION:Some") + 13);
  Read read(cut);
  ASSERT_NE(read.result.item, nullptr);
  EXPECT_EQ(read.master().details->summary, "Cut short");
  EXPECT_EQ(read.master().details->location, std::nullopt);
  EXPECT_THAT(read.problems(), Contains("the file ends early: its END lines were added"));
}

TEST(VdirItemTest, BytesThatAreNotUtf8AreReplacedBeforeAnythingIsRead) {
  Read read(simpleEvent("u\xFF", "Caf\xE9 \xF0\x9F\x8E\x82", "20260310T090000Z", "20260310T100000Z"));
  ASSERT_NE(read.result.item, nullptr);
  EXPECT_EQ(read.master().details->summary, "Caf\xEF\xBF\xBD \xF0\x9F\x8E\x82");  // the valid emoji stays
  EXPECT_EQ(read.master().uid, "u\xEF\xBF\xBD");
  EXPECT_THAT(read.problems(), Contains("bytes that are not UTF-8 were replaced by U+FFFD"));
}

TEST(VdirItemTest, AFileThatIsNotUtf8StillKeysItsOwnZoneByItsDefinition) {
  const std::string definition =
      "BEGIN:VTIMEZONE\r\nTZID:Custom Three\r\nX-NOTE:caf\xE9\r\nBEGIN:STANDARD\r\nDTSTART:19700101T000000\r\n"
      "TZOFFSETFROM:+0300\r\nTZOFFSETTO:+0300\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";
  Read read(kHead + definition + event("zoned", "SUMMARY:Caf\xE9\r\nDTSTART;TZID=Custom Three:20260710T090000\r\n") +
            kTail);
  ASSERT_NE(read.result.item, nullptr);
  EXPECT_EQ(read.instant(read.master().start), seconds(utc(2026, 7, 10, 6)));
  // The zone is keyed by the repaired text of its definition, which outlives the reading.
  auto kept = read.zones.definitionOf(read.master().start.zone);
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->first, "Custom Three");
  EXPECT_THAT(kept->second, HasSubstr("X-NOTE:caf\xEF\xBF\xBD\r\n"));
}

TEST(VdirItemTest, AnEscapeBeforeAMultiByteCharacterStillGivesUtf8) {
  // libical's unescaping takes one byte after a backslash, which would split the character.
  Read read(simpleEvent("a", "Caf\\\xC3\xA9", "20260310T090000Z", "20260310T100000Z",
                        "DESCRIPTION:Risks\\\xEF\xBF\xBD and more\r\n"));
  ASSERT_NE(read.result.item, nullptr);
  EXPECT_TRUE(isValidUtf8(*read.master().details->summary)) << *read.master().details->summary;
  EXPECT_TRUE(isValidUtf8(*read.master().details->description)) << *read.master().details->description;
  EXPECT_THAT(*read.master().details->description, HasSubstr(" and more"));
  // And in the names and addresses of the organizer and the attendees.
  Read people(simpleEvent("b", "Team", "20260310T090000Z", "20260310T100000Z",
                          "ORGANIZER;CN=\"Ren\\\xC3\xA9" "e\":mailto:ren\\\xC3\xA9" "e@example.org\r\n"
                          "ATTENDEE;CN=\"Jos\\\xC3\xA9\":mailto:jos\\\xC3\xA9@example.org\r\n"));
  ASSERT_NE(people.result.item, nullptr);
  ASSERT_TRUE(people.master().details->organizer);
  ASSERT_EQ(people.master().details->attendees.size(), 1u);
  for (const auto* participant : {people.master().details->organizer.get(), &people.master().details->attendees[0]}) {
    EXPECT_TRUE(isValidUtf8(participant->name.value_or(""))) << participant->name.value_or("");
    EXPECT_TRUE(isValidUtf8(participant->address)) << participant->address;
  }
}

TEST(VdirItemTest, ALongProblemIsShortenedBetweenCharacters) {
  // An unreadable line of two-byte characters: its quote in the problem is cut short. Read twice,
  // the second shifted by one byte, so that one of the cuts falls inside a character.
  std::string line;
  for (int i = 0; i < 400; ++i) line += "\xC3\xA9";
  for (const std::string& shift : {std::string(), std::string("x")}) {
    Read read(simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z", shift + line + "\r\n"));
    ASSERT_FALSE(read.result.diagnostics.empty());
    for (const auto& problem : read.problems()) {
      EXPECT_TRUE(isValidUtf8(problem)) << problem;
      EXPECT_LT(problem.size(), 260u);
    }
  }
}

// libical's nine BY lists of `rule`, whole, in the struct's order.
std::vector<std::span<short>> byLists(icalrecurrencetype& rule) {
  return {{rule.by_second, ICAL_BY_SECOND_SIZE},      {rule.by_minute, ICAL_BY_MINUTE_SIZE},
          {rule.by_hour, ICAL_BY_HOUR_SIZE},          {rule.by_day, ICAL_BY_DAY_SIZE},
          {rule.by_month_day, ICAL_BY_MONTHDAY_SIZE}, {rule.by_year_day, ICAL_BY_YEARDAY_SIZE},
          {rule.by_week_no, ICAL_BY_WEEKNO_SIZE},     {rule.by_month, ICAL_BY_MONTH_SIZE},
          {rule.by_set_pos, ICAL_BY_SETPOS_SIZE}};
}

// Rules with every BY list empty, partly filled or full, in random combinations: each list read in
// place is the one libical's struct holds, and so is the struct given back.
TEST(VdirItemTest, ACompactRuleGivesEachListAsLibicalHoldsIt) {
  using List = VdirCompactRule::List;
  std::mt19937 random(20261128);
  std::size_t filled = 0, full = 0;
  for (int round = 0; round < 500; ++round) {
    icalrecurrencetype rule;
    icalrecurrencetype_clear(&rule);
    rule.freq = ICAL_YEARLY_RECURRENCE;
    rule.interval = static_cast<short>(1 + random() % 9);
    rule.week_start = static_cast<icalrecurrencetype_weekday>(1 + random() % 7);
    const auto lists = byLists(rule);
    std::vector<std::vector<short>> written(lists.size());
    for (std::size_t l = 0; l < lists.size(); ++l) {
      const std::size_t size = lists[l].size();
      const std::size_t length = random() % 3 == 0   ? 0
                                 : random() % 4 == 0 ? size
                                                     : 1 + random() % std::min<std::size_t>(size, 5);
      for (std::size_t i = 0; i < length; ++i) written[l].push_back(static_cast<short>(1 + random() % 50));
      std::copy(written[l].begin(), written[l].end(), lists[l].begin());
      filled += length > 0 ? 1 : 0;
      full += length == size ? 1 : 0;
    }
    const VdirCompactRule compact(rule);
    EXPECT_EQ(compact.interval(), rule.interval);
    EXPECT_EQ(compact.weekStart(), rule.week_start);
    icalrecurrencetype back = compact.expanded();
    const auto given = byLists(back);
    for (std::size_t l = 0; l < lists.size(); ++l) {
      const auto inPlace = compact.list(static_cast<List>(l));
      EXPECT_EQ(std::vector<short>(inPlace.begin(), inPlace.end()), written[l]) << "round " << round << ", list " << l;
      std::vector<short> struct_(given[l].begin(), given[l].end());
      struct_.resize(std::find(struct_.begin(), struct_.end(), ICAL_RECURRENCE_ARRAY_MAX) - struct_.begin());
      EXPECT_EQ(struct_, written[l]) << "round " << round << ", list " << l;
    }
  }
  // Every kind of list was met, full ones included.
  EXPECT_GT(filled, 1000u);
  EXPECT_GT(full, 100u);
  EXPECT_TRUE(VdirCompactRule().list(List::month).empty());
}

}  // namespace
}  // namespace vesp::vdir
