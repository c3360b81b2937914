// The outline of a calendar file's text: the zone definitions and calendar property lines it
// writes directly inside its VCALENDAR, found without parsing it, and nothing at all when a
// component line is written in a way the parser could read otherwise.
#include "platforms/vdir/VdirOutline.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace vesp::vdir {
namespace {

bool isEmpty(const VdirOutline& outline) { return outline.zones.empty() && outline.calendarLines.empty(); }

const std::string kZoneA =
    "BEGIN:VTIMEZONE\r\nTZID:Zone A\r\nBEGIN:STANDARD\r\nDTSTART:19700101T000000\r\n"
    "TZOFFSETFROM:+0300\r\nTZOFFSETTO:+0300\r\nEND:STANDARD\r\nEND:VTIMEZONE";
const std::string kZoneB =
    "BEGIN:VTIMEZONE\nTZID:Zone B\nBEGIN:STANDARD\nDTSTART:19700101T000000\n"
    "TZOFFSETFROM:-0500\nTZOFFSETTO:-0500\nEND:STANDARD\nEND:VTIMEZONE";
const std::string kEvent = "BEGIN:VEVENT\r\nUID:e\r\nDTSTART;TZID=Zone A:20260110T090000\r\nEND:VEVENT\r\n";

TEST(VdirOutlineTest, ZonesAreTheDefinitionsDirectlyInACalendarWithTheirTextAndLines) {
  const std::string head = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n";
  const std::string text = head + kZoneA + "\r\n" + kEvent + kZoneB + "\n" + "END:VCALENDAR";
  const auto zones = outlineOf(text).zones;
  ASSERT_EQ(zones.size(), 2u);
  EXPECT_EQ(zones[0].tzid, "Zone A");
  EXPECT_EQ(zones[0].text, kZoneA);
  EXPECT_EQ(zones[0].from, head.size());
  EXPECT_EQ(zones[0].to, head.size() + kZoneA.size() + 2);
  EXPECT_EQ(zones[1].tzid, "Zone B");
  EXPECT_EQ(zones[1].text, kZoneB);
  EXPECT_EQ(text.substr(zones[1].to), "END:VCALENDAR");
  // A whole zone in a file that ends early is still one (the file's END lines are added when read).
  const std::string endsEarly = head + kZoneA;
  const auto early = outlineOf(endsEarly).zones;
  ASSERT_EQ(early.size(), 1u);
  EXPECT_EQ(early[0].text, kZoneA);
  EXPECT_EQ(early[0].to, head.size() + kZoneA.size());
  EXPECT_TRUE(isEmpty(outlineOf(head + kZoneA.substr(0, kZoneA.size() - 4))));
}

TEST(VdirOutlineTest, AnythingThatTheParserCouldReadOtherwiseGivesNoOutline) {
  const std::string head = "BEGIN:VCALENDAR\r\n", tail = "END:VCALENDAR\r\n";
  auto with = [&](std::string zone, std::string_view from, std::string_view to) {
    return zone.replace(zone.find(from), from.size(), to);
  };
  ASSERT_EQ(outlineOf(head + kZoneA + "\r\n" + tail).zones.size(), 1u);
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
  for (const auto& [what, text] : others) EXPECT_TRUE(isEmpty(outlineOf(text))) << what;
  // Zones not directly in a VCALENDAR, and zone lines inside a value, are not the file's zones.
  EXPECT_TRUE(isEmpty(outlineOf(kZoneA + "\r\n")));
  EXPECT_TRUE(isEmpty(outlineOf("BEGIN:VEVENT\r\n" + kZoneA + "\r\nEND:VEVENT\r\n")));
  EXPECT_TRUE(isEmpty(outlineOf(head + "BEGIN:VEVENT\r\n" + kZoneA + "\r\nEND:VEVENT\r\n" + tail)));
  const std::string inDescription = head + "BEGIN:VEVENT\r\nDESCRIPTION:BEGIN:VTIMEZONE\r\nEND:VEVENT\r\n" + kZoneA +
                                    "\r\n" + tail;
  const auto zones = outlineOf(inDescription).zones;
  ASSERT_EQ(zones.size(), 1u);
  EXPECT_EQ(zones[0].text, kZoneA);
}


TEST(VdirOutlineTest, CalendarLinesAreTheCalendarsOwnPropertiesWithTheirFoldedLines) {
  const std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Long\r\n  name//EN\r\n" + kZoneA + "\r\n" +
                           kEvent + "X-WR-CALNAME:Work\nEND:VCALENDAR\r\n";
  const auto outline = outlineOf(text);
  ASSERT_EQ(outline.calendarLines.size(), 3u);
  EXPECT_EQ(outline.calendarLines[0].text, "VERSION:2.0");
  EXPECT_EQ(text.substr(outline.calendarLines[0].from, outline.calendarLines[0].to - outline.calendarLines[0].from),
            "VERSION:2.0\r\n");
  EXPECT_EQ(outline.calendarLines[1].text, "PRODID:-//Long\r\n  name//EN");
  EXPECT_EQ(outline.calendarLines[1].to, outline.zones.at(0).from);
  EXPECT_EQ(outline.calendarLines[2].text, "X-WR-CALNAME:Work");
  EXPECT_EQ(text.substr(outline.calendarLines[2].to), "END:VCALENDAR\r\n");
  // The lines of events, zones and alarms are not the calendar's.
  for (const auto& line : outline.calendarLines) {
    EXPECT_EQ(line.text.find("UID"), std::string_view::npos);
    EXPECT_EQ(line.text.find("TZ"), std::string_view::npos);
  }
}

}  // namespace
}  // namespace vesp::vdir
