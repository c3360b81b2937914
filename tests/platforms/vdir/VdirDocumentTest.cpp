// iCalendar files kept byte for byte: read and written back unchanged, edited line by line, with
// everything the edit does not touch surviving.
#include <gtest/gtest.h>
#include <libical/ical.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platforms/vdir/VdirDocument.h"
#include "platforms/vdir/VdirText.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

namespace fs = std::filesystem;

using testing::everyCalendarFile;
using testing::readFile;

// The content lines of `text`, unfolded independently of the code under test: a line starting
// with a space or a tab continues the one before it.
std::vector<std::string> unfoldedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t feed = text.find('\n', at);
    std::string line = text.substr(at, feed == std::string::npos ? std::string::npos : feed - at);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!lines.empty() && !line.empty() && (line[0] == ' ' || line[0] == '\t')) {
      lines.back() += line.substr(1);
    } else {
      lines.push_back(line);
    }
    if (feed == std::string::npos) break;
    at = feed + 1;
  }
  return lines;
}

bool startsWithName(const std::string& line, const char* name) {
  std::size_t length = std::strlen(name);
  if (line.size() <= length || (line[length] != ':' && line[length] != ';')) return false;
  for (std::size_t at = 0; at < length; ++at) {
    if (std::toupper(static_cast<unsigned char>(line[at])) != name[at]) return false;
  }
  return true;
}

// `lines` without the SUMMARY lines that belong to a VEVENT or VTODO itself (those of its alarms stay).
std::vector<std::string> withoutItemSummaries(const std::vector<std::string>& lines) {
  std::vector<std::string> kept;
  int depth = 0, itemDepth = -1;
  for (const std::string& line : lines) {
    if (startsWithName(line, "BEGIN")) {
      ++depth;
      std::string name = line.substr(6);
      for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      if (itemDepth < 0 && (name == "VEVENT" || name == "VTODO")) itemDepth = depth;
    } else if (startsWithName(line, "END")) {
      if (depth == itemDepth) itemDepth = -1;
      --depth;
    } else if (depth == itemDepth && startsWithName(line, "SUMMARY")) {
      continue;
    }
    kept.push_back(line);
  }
  return kept;
}

VdirDocument parsed(const std::string& text) {
  auto document = VdirDocument::parse(text);
  EXPECT_TRUE(document.has_value()) << (document.has_value() ? "" : document.error().description());
  return document.has_value() ? std::move(document.value()) : VdirDocument();
}

VdirComponent* firstOf(VdirDocument& document, const std::string& name) {
  VdirComponent* calendar = document.calendar();
  if (!calendar) return nullptr;
  for (VdirComponent& component : calendar->components()) {
    if (component.name() == name) return &component;
  }
  return nullptr;
}

const std::string kEvent =
    "BEGIN:VCALENDAR\r\n"
    "VERSION:2.0\r\n"
    "PRODID:-//Someone//Else//EN\r\n"
    "X-WR-CALNAME:Home\r\n"
    "BEGIN:VEVENT\r\n"
    "UID:e1@example.org\r\n"
    "DTSTART;TZID=\"Europe/Berlin\":20261201T090000\r\n"
    "SUMMARY:Stand-up\\, daily\r\n"
    "CATEGORIES:a,b\r\n"
    "X-FOO;X-P=\"a:b\":x\\,y\\;z\r\n"
    "DESCRIPTION:A long description that was folded by its writer at a place o\r\n"
    " f its own choosing\r\n"
    "BEGIN:VALARM\r\n"
    "ACTION:DISPLAY\r\n"
    "TRIGGER:-PT15M\r\n"
    "END:VALARM\r\n"
    "BEGIN:X-THING\r\n"
    "X-INSIDE:1\r\n"
    "END:X-THING\r\n"
    "BEGIN:VLOCATION\r\n"
    "NAME:Room 1\r\n"
    "END:VLOCATION\r\n"
    "END:VEVENT\r\n"
    "BEGIN:X-TOP\r\n"
    "X-KEEP:me\r\n"
    "END:X-TOP\r\n"
    "END:VCALENDAR\r\n";

TEST(VdirDocumentTest, EveryCalendarFileOfTheSuiteIsWrittenBackByteForByte) {
  std::size_t read = 0;
  for (const fs::path& file : everyCalendarFile()) {
    const std::string bytes = readFile(file);
    auto document = VdirDocument::parse(bytes);
    if (!document.has_value()) continue;  // components that do not nest: refused, never rewritten
    ++read;
    EXPECT_EQ(document.value().text(), bytes) << file;
    EXPECT_FALSE(document.value().changed()) << file;
  }
  EXPECT_GE(read, 190u) << "the suite's calendar files were not found";
}

TEST(VdirDocumentTest, ChangingTheTitleChangesOnlyTheSummaryLineOfEveryFile) {
  std::size_t edited = 0;
  for (const fs::path& file : everyCalendarFile()) {
    const std::string bytes = readFile(file);
    auto result = VdirDocument::parse(bytes);
    if (!result.has_value() || !result.value().calendar()) continue;
    VdirDocument& document = result.value();
    std::size_t items = 0;
    for (VdirComponent& component : document.calendar()->components()) {
      if (component.name() != "VEVENT" && component.name() != "VTODO") continue;
      component.set(VdirContentLine("SUMMARY", {}, escapedText("Renamed, \u00e9t\u00e9; here")));
      ++items;
    }
    if (items == 0) continue;
    ++edited;
    const std::string written = document.text();
    std::vector<std::string> before = unfoldedLines(bytes), after = unfoldedLines(written);
    // Outside the items' own SUMMARY lines, the content lines are exactly those read, in order.
    EXPECT_EQ(withoutItemSummaries(after), withoutItemSummaries(before)) << file;
    EXPECT_EQ(std::count(after.begin(), after.end(), "SUMMARY:Renamed\\, \u00e9t\u00e9\\; here"),
              static_cast<std::ptrdiff_t>(items))
        << file;
    // libical reads the new title back from every item.
    std::unique_ptr<icalcomponent, decltype(&icalcomponent_free)> calendar(icalparser_parse_string(written.c_str()),
                                                                           icalcomponent_free);
    if (!calendar || icalcomponent_isa(calendar.get()) != ICAL_VCALENDAR_COMPONENT) continue;
    for (icalcomponent* item = icalcomponent_get_first_component(calendar.get(), ICAL_VEVENT_COMPONENT); item;
         item = icalcomponent_get_next_component(calendar.get(), ICAL_VEVENT_COMPONENT)) {
      const char* summary = icalcomponent_get_summary(item);
      ASSERT_NE(summary, nullptr) << file;
      EXPECT_STREQ(summary, "Renamed, \u00e9t\u00e9; here") << file;
    }
  }
  EXPECT_GE(edited, 180u);
}

TEST(VdirDocumentTest, AnEditKeepsUnknownComponentsPropertiesParametersAndEscapes) {
  VdirDocument document = parsed(kEvent);
  VdirComponent* event = firstOf(document, "VEVENT");
  ASSERT_NE(event, nullptr);
  EXPECT_TRUE(event->set(VdirContentLine("SUMMARY", {}, "Stand-up")));
  const std::string written = document.text();
  std::string expected = kEvent;
  expected.replace(expected.find("SUMMARY:Stand-up\\, daily"), std::string("SUMMARY:Stand-up\\, daily").size(),
                   "SUMMARY:Stand-up");
  EXPECT_EQ(written, expected);
  EXPECT_TRUE(document.changed());
}

TEST(VdirDocumentTest, SettingTheSameLineChangesNothing) {
  VdirDocument document = parsed(kEvent);
  VdirComponent* event = firstOf(document, "VEVENT");
  ASSERT_NE(event, nullptr);
  const VdirContentLine* summary = event->property("summary");
  ASSERT_NE(summary, nullptr);
  EXPECT_FALSE(event->set(*summary));
  EXPECT_FALSE(document.changed());
  EXPECT_EQ(document.text(), kEvent);
}

TEST(VdirDocumentTest, NewPropertiesGoAboveTheSubComponentsWithTheFilesLineEnd) {
  std::string lf = kEvent;
  for (std::size_t at; (at = lf.find("\r\n")) != std::string::npos;) lf.replace(at, 2, "\n");
  for (const std::string& text : {kEvent, lf}) {
    const std::string end = text == kEvent ? "\r\n" : "\n";
    VdirDocument document = parsed(text);
    EXPECT_EQ(document.lineEnd(), end);
    VdirComponent* event = firstOf(document, "VEVENT");
    ASSERT_NE(event, nullptr);
    event->set(VdirContentLine("LOCATION", {}, "Room 2"));
    const std::string written = document.text();
    std::size_t location = written.find("LOCATION:Room 2" + end);
    ASSERT_NE(location, std::string::npos) << written;
    EXPECT_LT(location, written.find("BEGIN:VALARM"));
    EXPECT_GT(location, written.find("DESCRIPTION:"));
    EXPECT_EQ(written.size(), text.size() + std::string("LOCATION:Room 2").size() + end.size());
  }
}

TEST(VdirDocumentTest, RemovingPropertiesAndComponentsKeepsTheRestInPlace) {
  VdirDocument document = parsed(kEvent);
  VdirComponent* event = firstOf(document, "VEVENT");
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->remove("CATEGORIES"), 1u);
  EXPECT_EQ(event->remove("CATEGORIES"), 0u);
  EXPECT_EQ(event->removeComponents([](const VdirComponent& c) { return c.name() == "X-THING"; }), 1u);
  event->add(VdirContentLine("EXDATE", {{"TZID", {"Europe/Berlin"}}}, "20261208T090000"));
  std::string expected = kEvent;
  auto cut = [&](const std::string& piece) { expected.erase(expected.find(piece), piece.size()); };
  cut("CATEGORIES:a,b\r\n");
  cut("BEGIN:X-THING\r\nX-INSIDE:1\r\nEND:X-THING\r\n");
  expected.insert(expected.find("BEGIN:VALARM"), "EXDATE;TZID=Europe/Berlin:20261208T090000\r\n");
  EXPECT_EQ(document.text(), expected);
}

TEST(VdirDocumentTest, RemoveIfRemovesOnlyTheMatchingLines) {
  VdirDocument document = parsed(
      "BEGIN:VCALENDAR\nBEGIN:VEVENT\nEXDATE:20260101T100000Z\nBEGIN:VALARM\nEND:VALARM\n"
      "EXDATE:20260102T100000Z,20260103T100000Z\nEXDATE:20260104T100000Z\nEND:VEVENT\nEND:VCALENDAR\n");
  VdirComponent* event = firstOf(document, "VEVENT");
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->removeIf("EXDATE", [](const VdirContentLine& l) { return l.value() != "20260104T100000Z"; }), 2u);
  EXPECT_EQ(document.text(),
            "BEGIN:VCALENDAR\nBEGIN:VEVENT\nBEGIN:VALARM\nEND:VALARM\nEXDATE:20260104T100000Z\nEND:VEVENT\nEND:VCALENDAR\n");
}

TEST(VdirDocumentTest, NewComponentsAreWrittenWhole) {
  VdirDocument document = parsed("BEGIN:VCALENDAR\r\nVERSION:2.0\r\nEND:VCALENDAR\r\n");
  VdirComponent todo("vtodo");
  todo.add(VdirContentLine("UID", {}, "t1"));
  VdirComponent alarm("VALARM");
  alarm.add(VdirContentLine("ACTION", {}, "DISPLAY"));
  todo.addComponent(alarm);
  todo.add(VdirContentLine("SUMMARY", {}, "Milk"));
  document.calendar()->addComponent(todo);
  EXPECT_EQ(document.text(),
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VTODO\r\nUID:t1\r\nSUMMARY:Milk\r\nBEGIN:VALARM\r\n"
            "ACTION:DISPLAY\r\nEND:VALARM\r\nEND:VTODO\r\nEND:VCALENDAR\r\n");
}

TEST(VdirDocumentTest, TextAroundTheComponentsAndLinesThatAreNotContentLinesAreKept) {
  const std::string text =
      "\r\nBEGIN:VCALENDAR\r\nthis is no content line\r\nX-BAD;P:v\r\n\r\nBEGIN:VEVENT\r\nUID:1\r\nEND:VEVENT\r\n"
      "END:VCALENDAR\r\ntrailing words";
  VdirDocument document = parsed(text);
  EXPECT_EQ(document.text(), text);
  VdirComponent* event = firstOf(document, "VEVENT");
  ASSERT_NE(event, nullptr);
  event->set(VdirContentLine("SUMMARY", {}, "x"));
  std::string expected = text;
  expected.insert(expected.find("END:VEVENT"), "SUMMARY:x\r\n");
  EXPECT_EQ(document.text(), expected);
}

TEST(VdirDocumentTest, ComponentsThatDoNotNestAreRefused) {
  const std::pair<const char*, const char*> cases[] = {
      {"BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nEND:VCALENDAR\r\n", "line 3: END:VCALENDAR closes BEGIN:VEVENT"},
      {"END:VEVENT\r\n", "line 1: END:VEVENT without its BEGIN"},
      {"BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nEND:VEVENT\r\n", "BEGIN:VCALENDAR without its END"},
      {"BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\nEND:VCALENDAR\r\n", "line 3: END:VCALENDAR without its BEGIN"},
  };
  for (const auto& [text, problem] : cases) {
    auto document = VdirDocument::parse(text);
    ASSERT_FALSE(document.has_value()) << text;
    EXPECT_NE(document.error().description().find(problem), std::string::npos) << document.error().description();
  }
  auto mismatched = VdirDocument::parse("BEGIN:VCALENDAR\nBEGIN:VEVENT\nEND:VTODO\nEND:VCALENDAR\n");
  ASSERT_FALSE(mismatched.has_value());
  EXPECT_NE(mismatched.error().description().find("line 3: END:VTODO closes BEGIN:VEVENT"), std::string::npos)
      << mismatched.error().description();
}

TEST(VdirDocumentTest, ContentLinesAreReadWithTheirParameters) {
  auto line = VdirContentLine::parse("dtstart;tzid=\"Europe/Berlin\";X-LIST=a,\"b;c\",d:20261201T090000");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->name(), "DTSTART");
  ASSERT_EQ(line->parameters().size(), 2u);
  EXPECT_EQ(line->parameters()[0], (VdirParameter{"TZID", {"Europe/Berlin"}}));
  EXPECT_EQ(line->parameters()[1], (VdirParameter{"X-LIST", {"a", "b;c", "d"}}));
  ASSERT_NE(line->parameter("tzid"), nullptr);
  EXPECT_EQ(*line->parameter("tzid"), "Europe/Berlin");
  EXPECT_EQ(line->parameter("VALUE"), nullptr);
  EXPECT_EQ(line->value(), "20261201T090000");
  EXPECT_EQ(line->text(), "DTSTART;TZID=Europe/Berlin;X-LIST=a,\"b;c\",d:20261201T090000");
  EXPECT_EQ(VdirContentLine::parse(line->text()), line);

  auto url = VdirContentLine::parse("URL:https://example.org/a;b?c=d");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->value(), "https://example.org/a;b?c=d");

  line->setParameter("TZID", {"America/New_York"});
  line->setParameter("X-LIST", {});
  line->setParameter("VALUE", {"DATE-TIME"});
  EXPECT_EQ(line->text(), "DTSTART;TZID=America/New_York;VALUE=DATE-TIME:20261201T090000");

  for (const char* bad : {"", ":value", "NO COLON", "NAME", "NAME;:v", "NAME;P:v", "NAME;P=\"open:v",
                          "NAME;P=a\"b:v", "N@ME:v"}) {
    EXPECT_FALSE(VdirContentLine::parse(bad)) << bad;
  }
  auto empty = VdirContentLine::parse("X-EMPTY;P=:");
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->parameters()[0].values, std::vector<std::string>{""});
  EXPECT_EQ(empty->value(), "");
}

TEST(VdirDocumentTest, LongLinesFoldAt75OctetsWithoutSplittingACharacter) {
  std::string value;
  for (int at = 0; value.size() < 400; ++at) value += at % 3 == 0 ? "\u00e9" : at % 3 == 1 ? "\U0001F382" : "ab";
  const std::string line = "DESCRIPTION:" + value;
  for (const std::string end : {"\r\n", "\n"}) {
    const std::string folded = foldedLine(line, end);
    std::vector<std::string> physical;
    for (std::size_t at = 0; at < folded.size();) {
      std::size_t next = folded.find(end, at);
      ASSERT_NE(next, std::string::npos);
      physical.push_back(folded.substr(at, next - at));
      at = next + end.size();
    }
    ASSERT_GT(physical.size(), 5u);
    for (std::size_t at = 0; at < physical.size(); ++at) {
      EXPECT_LE(physical[at].size(), 75u);
      EXPECT_GE(physical[at].size(), 71u * (at + 1 < physical.size()));
      std::string content = at == 0 ? physical[at] : physical[at].substr(1);
      if (at > 0) {
        EXPECT_EQ(physical[at][0], ' ');
      }
      EXPECT_TRUE(isValidUtf8(content)) << at;
    }
    EXPECT_EQ(unfoldedLines(folded), std::vector<std::string>{line});
  }
  EXPECT_EQ(foldedLine("SUMMARY:x", "\r\n"), "SUMMARY:x\r\n");
  EXPECT_EQ(foldedLine(std::string(75, 'a'), "\n"), std::string(75, 'a') + "\n");
  EXPECT_EQ(foldedLine(std::string(76, 'a'), "\n"), std::string(75, 'a') + "\n a\n");
  EXPECT_EQ(foldedLine("SUMMARY:a\r\nb", "\n"), "SUMMARY:a  b\n");
}

TEST(VdirDocumentTest, TextIsEscapedAndUnescapedAsTheStandardSays) {
  EXPECT_EQ(escapedText("a\\b;c,d\ne\r\nf\rg"), "a\\\\b\\;c\\,d\\ne\\nf\\ng");
  EXPECT_EQ(unescapedText("a\\\\b\\;c\\,d\\ne\\Nf\\:g\\"), "a\\b;c,d\ne\nf\\:g\\");
  for (const std::string text : {"", "plain", "all: \\ ; , \n of them", "\u00e9t\u00e9"}) {
    EXPECT_EQ(unescapedText(escapedText(text)), text);
  }
}

}  // namespace
}  // namespace vesp::vdir
