// Editing items through the store: each operation's files on disk, what the store serves once
// the save returns, what is kept untouched, and the errors a host tells apart.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>

#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirItemEditor.h"
#include "platforms/vdir/VdirPlatform.h"
#include "platforms/vdir/VdirZones.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using testing::codeOf;
using testing::readFile;
using testing::TemporaryDirectory;
using testing::utc;
using testing::writeFile;
namespace fs = std::filesystem;

// Weekly on Mondays at 09:00 UTC from 2 November 2026, eight times, with what other programs add.
const std::string kWeekly =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//Writer//EN\r\nBEGIN:VEVENT\r\nUID:weekly\r\n"
    "DTSTAMP:20261001T000000Z\r\nDTSTART:20261102T090000Z\r\nDTEND:20261102T100000Z\r\n"
    "RRULE:FREQ=WEEKLY;COUNT=8\r\nSUMMARY:Team\r\nX-OTHER-APP;X-P=1:kept\r\n"
    "ATTACH:https://example.org/agenda\r\n"
    "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Team\r\nTRIGGER:-PT10M\r\nEND:VALARM\r\nEND:VEVENT\r\n"
    "END:VCALENDAR\r\n";

const std::string kTodo =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//Writer//EN\r\nBEGIN:VTODO\r\nUID:milk\r\n"
    "DTSTAMP:20261001T000000Z\r\nSUMMARY:Milk\r\nDUE;VALUE=DATE:20261201\r\nX-KEEP:yes\r\nEND:VTODO\r\n"
    "END:VCALENDAR\r\n";

VdirTime utcTime(int year, int month, int day, int hour) {
  VdirTime time;
  time.kind = VdirTime::Kind::utc;
  time.local = icaltime_null_time();
  time.local.year = year;
  time.local.month = month;
  time.local.day = day;
  time.local.hour = hour;
  return time;
}

VdirTime berlinTime(int year, int month, int day, int hour) {
  VdirTime time = utcTime(year, month, day, hour);
  time.kind = VdirTime::Kind::zoned;
  time.tzid = "Europe/Berlin";
  time.zone = builtinZone("Europe/Berlin");
  return time;
}

class VdirItemEditorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writeFile(root.path() / "c/weekly.ics", kWeekly);
    writeFile(root.path() / "c/milk.ics", kTodo);
    writeFile(root.path() / "d/displayname", "Other\n");
    reopen();
  }
  // A new platform over the tree as it is on disk.
  void reopen() {
    auto options = testing::platformOptions(root.path(), config.path() / "access.json");
    options.store.cacheDirectory = (config.path() / "cache").string();
    platform = VdirPlatform::make(options);
    store = platform->store();
    editor = std::make_unique<VdirItemEditor>(store);
  }
  // Start (UTC seconds) and title of every occurrence in November and December 2026.
  std::map<long long, std::string> occurrences() {
    std::map<long long, std::string> result;
    for (const auto& event : store->events(utc(2026, 11, 1), utc(2027, 1, 1), std::nullopt))
      result[static_cast<long long>(event->startDate()->timeIntervalSince1970())] = *event->title();
    return result;
  }
  static long long monday(int month, int day, int hour = 9) {
    return static_cast<long long>(civilSecondsSince1970(2026, month, day, hour, 0, 0));
  }
  platform::Date at(long long seconds) { return platform::Date::fromTimeIntervalSince1970(static_cast<double>(seconds)); }
  void apply(const rivet::RivetResult<VdirPlan>& plan) {
    ASSERT_TRUE(plan.has_value()) << plan.error().message();
    auto saved = editor->apply(*plan);
    ASSERT_TRUE(saved.has_value()) << saved.error().message();
  }

  TemporaryDirectory root, config;
  std::shared_ptr<VdirPlatform> platform;
  std::shared_ptr<VdirStore> store;
  std::unique_ptr<VdirItemEditor> editor;
};

TEST_F(VdirItemEditorTest, ANewEventIsAFileOfItsOwnNamedByItsUidWithItsZone) {
  auto plan = editor->newItem("d", "VEVENT", {.title = "Dentist", .start = berlinTime(2026, 12, 3, 15),
                                              .end = berlinTime(2026, 12, 3, 16)});
  ASSERT_TRUE(plan.has_value()) << plan.error().message();
  ASSERT_EQ(plan->changes.size(), 1u);
  const std::string name = plan->changes[0].name;
  EXPECT_THAT(name, ::testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\\.ics"));
  EXPECT_FALSE(fs::exists(root.path() / "d" / name));  // planned, not written
  apply(plan);
  const std::string text = readFile(root.path() / "d" / name);
  EXPECT_THAT(text, HasSubstr("UID:" + name.substr(0, name.size() - 4) + "\r\n"));
  EXPECT_THAT(text, HasSubstr("PRODID:-//Vesp//Vesp 0.1//EN\r\n"));
  EXPECT_THAT(text, HasSubstr("BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\n"));
  EXPECT_THAT(text, HasSubstr("DTSTART;TZID=Europe/Berlin:20261203T150000\r\n"));
  EXPECT_EQ(plan->identifier, "d/" + name);
  auto served = store->firstOccurrence(plan->identifier);
  ASSERT_NE(served, nullptr);
  EXPECT_EQ(served->title(), "Dentist");
  EXPECT_EQ(served->startDate()->timeIntervalSince1970(), civilSecondsSince1970(2026, 12, 3, 14, 0, 0));
}

TEST_F(VdirItemEditorTest, ChangingOneOccurrenceWritesAnOverrideAndLeavesTheRestAsTheyWere) {
  auto before = occurrences();
  ASSERT_EQ(before.size(), 8u);
  apply(editor->changeEvent("c/weekly.ics", at(monday(11, 16)), VdirSpan::thisOccurrence,
                            {.title = "Retro", .start = utcTime(2026, 11, 16, 13), .end = utcTime(2026, 11, 16, 14)}));
  auto after = occurrences();
  auto expected = before;
  expected.erase(monday(11, 16));
  expected[monday(11, 16, 13)] = "Retro";
  EXPECT_EQ(after, expected);
  const std::string text = readFile(root.path() / "c/weekly.ics");
  EXPECT_THAT(text, HasSubstr("RECURRENCE-ID:20261116T090000Z\r\n"));
  EXPECT_THAT(text, HasSubstr("X-OTHER-APP;X-P=1:kept\r\n"));
  EXPECT_THAT(text, HasSubstr("ATTACH:https://example.org/agenda\r\n"));
  EXPECT_THAT(text, HasSubstr("PRODID:-//Other//Writer//EN\r\n"));  // the file stays the other program's
  EXPECT_EQ(text.find("RRULE:FREQ=WEEKLY;COUNT=8\r\n"), text.rfind("RRULE"));  // the override repeats nothing
}

TEST_F(VdirItemEditorTest, ChangingThisAndLaterOccurrencesSplitsTheSeriesIntoTwoFiles) {
  auto before = occurrences();
  auto plan = editor->changeEvent("c/weekly.ics", at(monday(11, 23)), VdirSpan::futureOccurrences, {.title = "Team B"});
  ASSERT_TRUE(plan.has_value()) << plan.error().message();
  ASSERT_EQ(plan->changes.size(), 2u);
  apply(plan);
  auto expected = before;
  for (auto& [start, title] : expected)
    if (start >= monday(11, 23)) title = "Team B";
  EXPECT_EQ(occurrences(), expected);
  EXPECT_THAT(readFile(root.path() / "c/weekly.ics"), HasSubstr("RRULE:FREQ=WEEKLY;UNTIL=20261123T085959Z\r\n"));
  EXPECT_EQ(std::distance(fs::directory_iterator(root.path() / "c"), fs::directory_iterator()), 3);
  auto later = store->firstOccurrence(plan->identifier);
  ASSERT_NE(later, nullptr);
  EXPECT_EQ(later->startDate()->timeIntervalSince1970(), monday(11, 23));
  // From the first occurrence on is the whole series: no split.
  auto whole = editor->changeEvent("c/weekly.ics", at(monday(11, 2)), VdirSpan::futureOccurrences, {.title = "All"});
  ASSERT_TRUE(whole.has_value());
  EXPECT_EQ(whole->changes.size(), 1u);
}

TEST_F(VdirItemEditorTest, AZoneAnEditBringsInIsDefinedAndOneTheFileReliedOnByNameIsLeftAlone) {
  auto count = [](const std::string& text) {
    std::size_t found = 0;
    for (std::size_t at = text.find("BEGIN:VTIMEZONE"); at != std::string::npos; at = text.find("BEGIN:VTIMEZONE", at + 1))
      ++found;
    return found;
  };
  // A UTC series moved to Berlin time gets Berlin's VTIMEZONE, once, however often it is edited.
  apply(editor->changeEvent("c/weekly.ics", std::nullopt, VdirSpan::thisOccurrence,
                            {.start = berlinTime(2026, 11, 2, 10), .end = berlinTime(2026, 11, 2, 11)}));
  std::string text = readFile(root.path() / "c/weekly.ics");
  EXPECT_THAT(text, HasSubstr("DTSTART;TZID=Europe/Berlin:20261102T100000\r\n"));
  EXPECT_THAT(text, HasSubstr("BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\n"));
  apply(editor->changeEvent("c/weekly.ics", at(monday(11, 16)), VdirSpan::thisOccurrence,
                            {.start = berlinTime(2026, 11, 16, 12), .end = berlinTime(2026, 11, 16, 13)}));
  EXPECT_EQ(count(readFile(root.path() / "c/weekly.ics")), 1u);

  // A file that names its zone without defining it (as some writers do) keeps relying on the
  // name when an edit brings in nothing new, but a split's new file defines what it uses.
  const std::string byName =
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//Writer//EN\r\nBEGIN:VEVENT\r\nUID:named\r\n"
      "DTSTAMP:20261001T000000Z\r\nDTSTART;TZID=Europe/Berlin:20261103T090000\r\n"
      "DTEND;TZID=Europe/Berlin:20261103T100000\r\nRRULE:FREQ=WEEKLY;COUNT=4\r\nSUMMARY:Named\r\nEND:VEVENT\r\n"
      "END:VCALENDAR\r\n";
  writeFile(root.path() / "d/named.ics", byName);
  reopen();
  apply(editor->changeEvent("d/named.ics", std::nullopt, VdirSpan::thisOccurrence, {.title = "Renamed"}));
  EXPECT_EQ(count(readFile(root.path() / "d/named.ics")), 0u);
  const long long tuesday = static_cast<long long>(civilSecondsSince1970(2026, 11, 17, 8, 0, 0));
  auto plan = editor->changeEvent("d/named.ics", at(tuesday), VdirSpan::futureOccurrences, {.title = "Later"});
  apply(plan);
  ASSERT_TRUE(plan.has_value());
  EXPECT_EQ(count(readFile(root.path() / "d/named.ics")), 0u);
  EXPECT_EQ(count(readFile(root.path() / plan->identifier)), 1u);
  EXPECT_THAT(readFile(root.path() / plan->identifier), HasSubstr("BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\n"));
}

TEST_F(VdirItemEditorTest, RemovingOneLaterOrEveryOccurrence) {
  auto before = occurrences();
  apply(editor->removeEvent("c/weekly.ics", at(monday(11, 9)), VdirSpan::thisOccurrence));
  auto expected = before;
  expected.erase(monday(11, 9));
  EXPECT_EQ(occurrences(), expected);
  EXPECT_THAT(readFile(root.path() / "c/weekly.ics"), HasSubstr("EXDATE:20261109T090000Z\r\n"));

  apply(editor->removeEvent("c/weekly.ics", at(monday(12, 7)), VdirSpan::futureOccurrences));
  for (auto it = expected.begin(); it != expected.end();) it = it->first >= monday(12, 7) ? expected.erase(it) : std::next(it);
  EXPECT_EQ(occurrences(), expected);

  auto plan = editor->removeEvent("c/weekly.ics", std::nullopt, VdirSpan::thisOccurrence);
  ASSERT_TRUE(plan.has_value());
  EXPECT_EQ(plan->identifier, "");
  apply(plan);
  EXPECT_TRUE(occurrences().empty());
  EXPECT_FALSE(fs::exists(root.path() / "c/weekly.ics"));
  EXPECT_TRUE(fs::exists(root.path() / "c/milk.ics"));
}

TEST_F(VdirItemEditorTest, ARemindersDueDateCompletionAndRemoval) {
  VdirTime due = utcTime(2026, 12, 2, 0);
  due.kind = VdirTime::Kind::date;
  apply(editor->changeReminder("c/milk.ics", {.due = due, .priority = 1}));
  std::string text = readFile(root.path() / "c/milk.ics");
  EXPECT_THAT(text, HasSubstr("DUE;VALUE=DATE:20261202\r\n"));
  EXPECT_THAT(text, HasSubstr("PRIORITY:1\r\n"));
  EXPECT_THAT(text, HasSubstr("X-KEEP:yes\r\n"));
  EXPECT_EQ(store->reminder("c/milk.ics")->priority(), 1);

  apply(editor->setReminderCompleted("c/milk.ics", true));
  EXPECT_TRUE(store->reminder("c/milk.ics")->isCompleted());
  EXPECT_THAT(readFile(root.path() / "c/milk.ics"), HasSubstr("STATUS:COMPLETED\r\n"));
  apply(editor->setReminderCompleted("c/milk.ics", false));
  EXPECT_FALSE(store->reminder("c/milk.ics")->isCompleted());
  EXPECT_THAT(readFile(root.path() / "c/milk.ics"), Not(HasSubstr("COMPLETED:")));
  // Completing it again when it is already open changes nothing and writes nothing.
  auto again = editor->setReminderCompleted("c/milk.ics", false);
  ASSERT_TRUE(again.has_value());
  EXPECT_TRUE(again->changes.empty());

  apply(editor->removeReminder("c/milk.ics"));
  EXPECT_EQ(store->reminder("c/milk.ics"), nullptr);
  EXPECT_FALSE(fs::exists(root.path() / "c/milk.ics"));
}

TEST_F(VdirItemEditorTest, ASeriesMovesToAnotherCalendarNewFileFirst) {
  const std::string before = readFile(root.path() / "c/weekly.ics");
  auto plan = editor->changeEvent("c/weekly.ics", std::nullopt, VdirSpan::thisOccurrence, {}, "d");
  ASSERT_TRUE(plan.has_value()) << plan.error().message();
  ASSERT_EQ(plan->changes.size(), 2u);
  EXPECT_EQ(plan->changes[0].collection, "d");
  EXPECT_FALSE(plan->changes[1].bytes.has_value());
  apply(plan);
  EXPECT_FALSE(fs::exists(root.path() / "c/weekly.ics"));
  EXPECT_EQ(readFile(root.path() / "d/weekly.ics"), before);  // moved without a change: the same bytes
  ASSERT_NE(store->firstOccurrence("d/weekly.ics"), nullptr);
  EXPECT_EQ(store->firstOccurrence("d/weekly.ics")->calendar()->calendarIdentifier(), "d");
  auto one = editor->changeEvent("d/weekly.ics", at(monday(11, 9)), VdirSpan::thisOccurrence, {}, "c");
  ASSERT_FALSE(one.has_value());
  EXPECT_EQ(codeOf(one.error()), VdirErrorCode::invalidChange);
}

// A file of another item that has the moving item's file name stays, and the item takes a name of its own.
TEST_F(VdirItemEditorTest, AnItemMovesBesideAFileOfTheSameNameWithoutTouchingIt) {
  std::string theirs = kTodo;
  theirs.replace(theirs.find("UID:milk"), 8, "UID:their-milk");
  writeFile(root.path() / "d/milk.ics", theirs);
  std::string weekly = kWeekly;
  weekly.replace(weekly.find("UID:weekly"), 10, "UID:their-weekly");
  writeFile(root.path() / "d/weekly.ics", weekly);
  reopen();
  auto todo = editor->changeReminder("c/milk.ics", {.title = "Oat milk"}, "d");
  ASSERT_TRUE(todo.has_value()) << todo.error().message();
  EXPECT_EQ(todo->identifier, "d/milk-1.ics");
  apply(todo);
  auto event = editor->changeEvent("c/weekly.ics", std::nullopt, VdirSpan::thisOccurrence, {}, "d");
  ASSERT_TRUE(event.has_value()) << event.error().message();
  EXPECT_EQ(event->identifier, "d/weekly-1.ics");
  apply(event);
  EXPECT_EQ(readFile(root.path() / "d/milk.ics"), theirs);
  EXPECT_EQ(readFile(root.path() / "d/weekly.ics"), weekly);
  EXPECT_FALSE(fs::exists(root.path() / "c/milk.ics"));
  EXPECT_FALSE(fs::exists(root.path() / "c/weekly.ics"));
  const std::string moved = readFile(root.path() / "d/milk-1.ics");
  EXPECT_THAT(moved, HasSubstr("UID:milk\r\n"));
  EXPECT_THAT(moved, HasSubstr("SUMMARY:Oat milk\r\n"));
  EXPECT_THAT(moved, HasSubstr("X-KEEP:yes\r\n"));
  ASSERT_NE(store->reminder("d/milk-1.ics"), nullptr);
  EXPECT_EQ(store->reminder("d/milk.ics")->title(), "Milk");
  ASSERT_NE(store->firstOccurrence("d/weekly-1.ics"), nullptr);
}

// A calendar that already holds an item of the same UID (under another file name) is not given a
// second: the move is refused and nothing is written.
TEST_F(VdirItemEditorTest, AnItemDoesNotMoveIntoACalendarHoldingItsUid) {
  writeFile(root.path() / "d/copy-of-milk.ics", kTodo);
  writeFile(root.path() / "d/copy-of-weekly.ics", kWeekly);
  reopen();
  const auto tree = testing::treeState(root.path());
  auto todo = editor->changeReminder("c/milk.ics", {.title = "Oat milk"}, "d");
  ASSERT_FALSE(todo.has_value());
  EXPECT_EQ(codeOf(todo.error()), VdirErrorCode::invalidChange);
  EXPECT_THAT(todo.error().message(), HasSubstr("d/copy-of-milk.ics already holds an item with the UID \"milk\""));
  auto event = editor->changeEvent("c/weekly.ics", std::nullopt, VdirSpan::thisOccurrence, {}, "d");
  ASSERT_FALSE(event.has_value());
  EXPECT_EQ(codeOf(event.error()), VdirErrorCode::invalidChange);
  EXPECT_THAT(event.error().message(), HasSubstr("d/copy-of-weekly.ics already holds an item with the UID \"weekly\""));
  EXPECT_EQ(testing::treeState(root.path()), tree);
  // Into a calendar without that UID, the same items move.
  fs::remove(root.path() / "d/copy-of-milk.ics");
  reopen();
  auto moved = editor->changeReminder("c/milk.ics", {.title = "Oat milk"}, "d");
  ASSERT_TRUE(moved.has_value()) << moved.error().message();
}

TEST_F(VdirItemEditorTest, FailuresSayWhatKindTheyAreAndChangeNothing) {
  const auto tree = testing::treeState(root.path());
  auto missing = editor->changeEvent("c/nothing.ics", std::nullopt, VdirSpan::thisOccurrence, {.title = "x"});
  ASSERT_FALSE(missing.has_value());
  EXPECT_EQ(codeOf(missing.error()), VdirErrorCode::noSuchItem);
  auto todoAsEvent = editor->changeEvent("c/milk.ics", std::nullopt, VdirSpan::thisOccurrence, {.title = "x"});
  ASSERT_FALSE(todoAsEvent.has_value());
  EXPECT_EQ(codeOf(todoAsEvent.error()), VdirErrorCode::noSuchItem);
  auto backwards = editor->changeEvent("c/weekly.ics", std::nullopt, VdirSpan::thisOccurrence,
                                       {.end = utcTime(2026, 11, 2, 8)});
  ASSERT_FALSE(backwards.has_value());
  EXPECT_EQ(codeOf(backwards.error()), VdirErrorCode::endBeforeStart);
  VdirTime nowhere = berlinTime(2026, 12, 1, 9);
  nowhere.tzid = "Nowhere/Atlantis";
  nowhere.zone = nullptr;
  auto unknown = editor->newItem("d", "VEVENT", {.title = "x", .start = nowhere});
  ASSERT_FALSE(unknown.has_value());
  EXPECT_EQ(codeOf(unknown.error()), VdirErrorCode::unknownTimeZone);
  auto noCalendar = editor->newItem("nowhere", "VTODO", {.title = "x"});
  ASSERT_FALSE(noCalendar.has_value());
  EXPECT_EQ(codeOf(noCalendar.error()), VdirErrorCode::noCalendar);
  EXPECT_EQ(testing::treeState(root.path()), tree);
}

// What python-icalendar (Debian's package, for /usr/bin/python3) reads in `path`: per VEVENT, its
// summary, its start in seconds since 1970 and its rule; empty when the reader failed.
std::string readByPythonIcalendar(const fs::path& path) {
  const std::string script =
      "import sys, icalendar\n"
      "cal = icalendar.Calendar.from_ical(open(sys.argv[1], 'rb').read())\n"
      "for ev in cal.walk('VEVENT'):\n"
      "    rule = ev.get('RRULE')\n"
      "    print(ev.get('SUMMARY'), int(ev.decoded('DTSTART').timestamp()), rule.to_ical().decode() if rule else '-')\n";
  TemporaryDirectory scratch;
  writeFile(scratch.path() / "read.py", script);
  const std::string command = "/usr/bin/python3 " + (scratch.path() / "read.py").string() + " '" + path.string() + "' 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return "";
  std::string output;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  return ::pclose(pipe) == 0 ? output : "failed: " + output;
}

TEST_F(VdirItemEditorTest, WhatIsWrittenReadsBackInAnIndependentReader) {
  if (!fs::exists("/usr/lib/python3/dist-packages/icalendar")) {
    const char* ci = std::getenv("CI");
    ASSERT_FALSE(ci && std::string(ci) == "true") << "CI must install the Debian package python3-icalendar";
    GTEST_SKIP() << "needs the Debian package python3-icalendar (scripts/test installs it)";
  }
  auto created = editor->newItem("d", "VEVENT", {.title = "Dentist", .start = berlinTime(2026, 12, 3, 15),
                                                 .end = berlinTime(2026, 12, 3, 16)});
  apply(created);
  EXPECT_EQ(readByPythonIcalendar(root.path() / "d" / created->changes[0].name),
            "Dentist " + std::to_string(monday(12, 3, 14)) + " -\n");
  auto split = editor->changeEvent("c/weekly.ics", at(monday(11, 23)), VdirSpan::futureOccurrences, {.title = "Team B"});
  apply(split);
  EXPECT_EQ(readByPythonIcalendar(root.path() / "c/weekly.ics"),
            "Team " + std::to_string(monday(11, 2)) + " FREQ=WEEKLY;UNTIL=20261123T085959Z\n");
  EXPECT_EQ(readByPythonIcalendar(root.path() / "c" / split->changes[1].name),
            "Team B " + std::to_string(monday(11, 23)) + " FREQ=WEEKLY;COUNT=5\n");
}

// An invitation as a mail brings it: METHOD, a zone definition of its sender, two events, a to-do
// and a zone none of them uses.
const std::string kInvitation =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Sender//Mail//EN\r\nMETHOD:REQUEST\r\n"
    "BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\nX-SENDER-ZONE:yes\r\nBEGIN:STANDARD\r\nDTSTART:19701025T030000\r\n"
    "RRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\nTZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nEND:STANDARD\r\n"
    "BEGIN:DAYLIGHT\r\nDTSTART:19700329T020000\r\nRRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\nTZOFFSETFROM:+0100\r\n"
    "TZOFFSETTO:+0200\r\nEND:DAYLIGHT\r\nEND:VTIMEZONE\r\n"
    "BEGIN:VTIMEZONE\r\nTZID:America/New_York\r\nBEGIN:STANDARD\r\nDTSTART:19701101T020000\r\nTZOFFSETFROM:-0400\r\n"
    "TZOFFSETTO:-0500\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n"
    "BEGIN:VEVENT\r\nUID:invite-1\r\nDTSTAMP:20261120T000000Z\r\nSEQUENCE:0\r\n"
    "DTSTART;TZID=Europe/Berlin:20261203T150000\r\nDTEND;TZID=Europe/Berlin:20261203T160000\r\nSUMMARY:Review\r\n"
    "X-SENDER-NOTE:kept\r\nEND:VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:invite-2\r\nDTSTAMP:20261120T000000Z\r\nDTSTART:20261204T090000Z\r\n"
    "DTEND:20261204T100000Z\r\nSUMMARY:Lunch\r\nEND:VEVENT\r\n"
    "BEGIN:VTODO\r\nUID:task-3\r\nDTSTAMP:20261120T000000Z\r\nSUMMARY:Prepare slides\r\nEND:VTODO\r\n"
    "END:VCALENDAR\r\n";

// Imports every item of `text` into `collection`, saving each plan; the outcomes in order.
std::vector<VdirImportOutcome> importAll(VdirItemEditor& editor, const std::string& collection, const std::string& text) {
  std::vector<VdirImportOutcome> outcomes;
  auto items = itemsToImport(text);
  EXPECT_TRUE(items.has_value()) << items.error().message();
  if (!items) return outcomes;
  for (const auto& item : *items) {
    auto imported = editor.importItem(collection, item);
    EXPECT_TRUE(imported.has_value()) << imported.error().message();
    if (!imported) continue;
    outcomes.push_back(imported->outcome);
    EXPECT_EQ(imported->plan.changes.empty(), imported->outcome == VdirImportOutcome::unchanged);
    if (!imported->plan.changes.empty()) {
      auto saved = editor.apply(imported->plan);
      EXPECT_TRUE(saved.has_value()) << saved.error().message();
    }
  }
  return outcomes;
}

using Outcomes = std::vector<VdirImportOutcome>;
constexpr auto kAdded = VdirImportOutcome::added;
constexpr auto kUpdated = VdirImportOutcome::updated;
constexpr auto kUnchanged = VdirImportOutcome::unchanged;

TEST_F(VdirItemEditorTest, AnImportedFileBecomesOneFilePerUidAndImportingItAgainChangesNothing) {
  EXPECT_EQ(importAll(*editor, "d", kInvitation), (Outcomes{kAdded, kAdded, kAdded}));
  const std::string review = readFile(root.path() / "d/invite-1.ics");
  EXPECT_THAT(review, Not(HasSubstr("METHOD")));  // a stored item is not a message
  EXPECT_THAT(review, HasSubstr("PRODID:-//Sender//Mail//EN\r\n"));
  EXPECT_THAT(review, HasSubstr("TZID:Europe/Berlin\r\nX-SENDER-ZONE:yes\r\n"));  // the sender's own definition
  EXPECT_THAT(review, Not(HasSubstr("America/New_York")));
  EXPECT_THAT(review, HasSubstr("X-SENDER-NOTE:kept\r\n"));
  EXPECT_THAT(review, Not(HasSubstr("invite-2")));
  EXPECT_THAT(readFile(root.path() / "d/invite-2.ics"), Not(HasSubstr("VTIMEZONE")));
  auto served = store->firstOccurrence("d/invite-1.ics");
  ASSERT_NE(served, nullptr);
  EXPECT_EQ(served->title(), "Review");
  EXPECT_EQ(served->startDate()->timeIntervalSince1970(), civilSecondsSince1970(2026, 12, 3, 14, 0, 0));
  ASSERT_NE(store->reminder("d/task-3.ics"), nullptr);
  EXPECT_EQ(store->reminder("d/task-3.ics")->title(), "Prepare slides");

  const auto tree = testing::treeState(root.path());
  EXPECT_EQ(importAll(*editor, "d", kInvitation), (Outcomes{kUnchanged, kUnchanged, kUnchanged}));
  reopen();  // the same answer from a store that read the imported files from disk
  EXPECT_EQ(importAll(*editor, "d", kInvitation), (Outcomes{kUnchanged, kUnchanged, kUnchanged}));
  EXPECT_EQ(testing::treeState(root.path()), tree);
}

// The weekly series of the fixture as another program would send it again, with `extra` lines.
std::string weeklyAgain(const std::string& extra, const std::string& title) {
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Sender//Mail//EN\r\nBEGIN:VEVENT\r\nUID:weekly\r\n"
         "DTSTAMP:20261120T000000Z\r\nDTSTART:20261102T090000Z\r\nDTEND:20261102T100000Z\r\n"
         "RRULE:FREQ=WEEKLY;COUNT=8\r\nSUMMARY:" + title + "\r\n" + extra + "END:VEVENT\r\nEND:VCALENDAR\r\n";
}

TEST_F(VdirItemEditorTest, AnImportedItemReplacesTheCalendarsCopyOnlyWhenItIsNewer) {
  const std::string before = readFile(root.path() / "c/weekly.ics");
  // The same SEQUENCE (none is 0) and no LAST-MODIFIED: not newer, whatever it says.
  EXPECT_EQ(importAll(*editor, "c", weeklyAgain("SEQUENCE:0\r\n", "Other title")), Outcomes{kUnchanged});
  EXPECT_EQ(readFile(root.path() / "c/weekly.ics"), before);

  EXPECT_EQ(importAll(*editor, "c", weeklyAgain("SEQUENCE:2\r\nLAST-MODIFIED:20261120T000000Z\r\n", "Team (2)")),
            Outcomes{kUpdated});
  std::string text = readFile(root.path() / "c/weekly.ics");
  EXPECT_THAT(text, HasSubstr("SUMMARY:Team (2)\r\n"));
  EXPECT_THAT(text, Not(HasSubstr("SUMMARY:Team\r\n")));
  EXPECT_THAT(text, HasSubstr("PRODID:-//Other//Writer//EN\r\n"));  // the file stays where it was, as it was around the item
  EXPECT_EQ(occurrences().size(), 8u);
  EXPECT_EQ(occurrences().begin()->second, "Team (2)");

  // The same SEQUENCE decides by LAST-MODIFIED; a lower SEQUENCE is older whatever its stamp.
  EXPECT_EQ(importAll(*editor, "c", weeklyAgain("SEQUENCE:2\r\nLAST-MODIFIED:20261119T000000Z\r\n", "Older")),
            Outcomes{kUnchanged});
  EXPECT_EQ(importAll(*editor, "c", weeklyAgain("SEQUENCE:1\r\nLAST-MODIFIED:20261125T000000Z\r\n", "Older")),
            Outcomes{kUnchanged});
  EXPECT_EQ(importAll(*editor, "c", weeklyAgain("SEQUENCE:2\r\nLAST-MODIFIED:20261121T000000Z\r\n", "Team (3)")),
            Outcomes{kUpdated});
  EXPECT_EQ(occurrences().begin()->second, "Team (3)");
  EXPECT_EQ(std::distance(fs::directory_iterator(root.path() / "c"), fs::directory_iterator()), 2);  // one UID, one file
}

TEST_F(VdirItemEditorTest, AnOverrideImportedAloneMergesIntoItsSeriesFile) {
  const std::string retro =
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Sender//Mail//EN\r\nMETHOD:REQUEST\r\nBEGIN:VEVENT\r\nUID:weekly\r\n"
      "DTSTAMP:20261120T000000Z\r\nRECURRENCE-ID:20261116T090000Z\r\nDTSTART:20261116T130000Z\r\n"
      "DTEND:20261116T140000Z\r\nSUMMARY:Retro\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
  auto expected = occurrences();
  expected.erase(monday(11, 16));
  expected[monday(11, 16, 13)] = "Retro";
  EXPECT_EQ(importAll(*editor, "c", retro), Outcomes{kUpdated});
  EXPECT_EQ(occurrences(), expected);
  const std::string text = readFile(root.path() / "c/weekly.ics");
  EXPECT_THAT(text, HasSubstr("RRULE:FREQ=WEEKLY;COUNT=8\r\n"));  // the master is still there
  EXPECT_THAT(text, HasSubstr("RECURRENCE-ID:20261116T090000Z\r\n"));
  EXPECT_EQ(std::distance(fs::directory_iterator(root.path() / "c"), fs::directory_iterator()), 2);
  EXPECT_EQ(importAll(*editor, "c", retro), Outcomes{kUnchanged});

  // The same occurrence named in another form (its zone's wall time, not UTC) is the same override.
  std::string again = retro;
  again.replace(again.find("RECURRENCE-ID:20261116T090000Z"), 30, "RECURRENCE-ID;TZID=Europe/Berlin:20261116T100000");
  EXPECT_EQ(importAll(*editor, "c", again), Outcomes{kUnchanged});
  again.replace(again.find("SUMMARY:Retro"), 13, "SEQUENCE:1\r\nSUMMARY:Retro (2)");
  EXPECT_EQ(importAll(*editor, "c", again), Outcomes{kUpdated});
  const std::string replaced = readFile(root.path() / "c/weekly.ics");
  EXPECT_EQ(replaced.find("RECURRENCE-ID"), replaced.rfind("RECURRENCE-ID")) << replaced;
  expected[monday(11, 16, 13)] = "Retro (2)";
  EXPECT_EQ(occurrences(), expected);
}

TEST_F(VdirItemEditorTest, ImportedUidsNeverNameAFileOutsideTheCollection) {
  writeFile(root.path() / "d/taken.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:x\r\nBEGIN:VTODO\r\nUID:another\r\nSUMMARY:Other\r\n"
            "END:VTODO\r\nEND:VCALENDAR\r\n");
  reopen();
  const std::vector<std::string> uids = {"../../x", "a/b", "..", "line\\nbreak", std::string(600, 'u'), ".hidden",
                                         "taken"};
  std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:x\r\n";
  for (const auto& uid : uids) text += "BEGIN:VTODO\r\nUID:" + uid + "\r\nSUMMARY:T " + uid.substr(0, 8) + "\r\nEND:VTODO\r\n";
  text += "END:VCALENDAR\r\n";
  EXPECT_EQ(importAll(*editor, "d", text), Outcomes(uids.size(), kAdded));
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(root.path() / "d"))
    if (entry.path().extension() == ".ics") names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  ASSERT_EQ(names.size(), uids.size() + 1);
  for (const auto& name : names)
    EXPECT_THAT(name, ::testing::MatchesRegex("[0-9a-f]{32}\\.ics|taken\\.ics|taken-1\\.ics")) << name;
  EXPECT_THAT(readFile(root.path() / "d/taken-1.ics"), HasSubstr("UID:taken\r\n"));
  EXPECT_THAT(readFile(root.path() / "d/taken.ics"), HasSubstr("UID:another\r\n"));
  for (const auto& entry : fs::recursive_directory_iterator(root.path()))
    if (entry.is_regular_file()) {
      const std::string parent = entry.path().parent_path().filename().string();
      EXPECT_TRUE(parent == "c" || parent == "d") << entry.path();  // nothing beside or above the collections
      EXPECT_EQ(entry.path().parent_path().parent_path(), root.path()) << entry.path();
    }
  EXPECT_FALSE(fs::exists(root.path().parent_path() / "x"));
  EXPECT_EQ(importAll(*editor, "d", text), Outcomes(uids.size(), kUnchanged));
}

// A UID is text: written with escapes, it is changed, served and imported again by what it says.
TEST_F(VdirItemEditorTest, AUidWrittenWithEscapesIsChangedAndImportedAgainByItsText) {
  const std::string escaped =
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//Writer//EN\r\nBEGIN:VEVENT\r\n"
      "UID:team\\, weekly\\;\\nroom 4\r\nDTSTAMP:20261120T000000Z\r\nDTSTART:20261202T090000Z\r\n"
      "DTEND:20261202T100000Z\r\nRRULE:FREQ=WEEKLY;COUNT=2\r\nSUMMARY:Team\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
  writeFile(root.path() / "d/escaped.ics", escaped);
  reopen();
  auto served = store->firstOccurrence("d/escaped.ics");
  ASSERT_NE(served, nullptr);
  EXPECT_EQ(served->calendarItemExternalIdentifier(), "team, weekly;\nroom 4");
  apply(editor->changeEvent("d/escaped.ics", at(monday(12, 9)), VdirSpan::thisOccurrence, {.title = "Moved room"}));
  const std::string text = readFile(root.path() / "d/escaped.ics");
  EXPECT_THAT(text, HasSubstr("RECURRENCE-ID:20261209T090000Z\r\n"));
  EXPECT_EQ(text.find("UID:team\\, weekly\\;\\nroom 4\r\n"), text.find("UID:"));  // as it was written
  EXPECT_EQ(occurrences()[monday(12, 9)], "Moved room");
  // The same item sent again is found by its UID, and is not newer.
  const auto tree = testing::treeState(root.path());
  EXPECT_EQ(importAll(*editor, "d", escaped), (Outcomes{kUnchanged}));
  EXPECT_EQ(testing::treeState(root.path()), tree);
}

TEST_F(VdirItemEditorTest, UidsThatDifferOnlyInCaseAreTwoItems) {
  // RFC 5545 compares UIDs exactly: "Case" and "case" are two items, each in its own file.
  const std::string text =
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:x\r\nBEGIN:VTODO\r\nUID:Case\r\nSUMMARY:Upper\r\nEND:VTODO\r\n"
      "BEGIN:VTODO\r\nUID:case\r\nSUMMARY:Lower\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";
  EXPECT_EQ(importAll(*editor, "d", text), (Outcomes{kAdded, kAdded}));
  EXPECT_THAT(readFile(root.path() / "d/Case.ics"), HasSubstr("SUMMARY:Upper\r\n"));
  EXPECT_THAT(readFile(root.path() / "d/case.ics"), HasSubstr("SUMMARY:Lower\r\n"));
  reopen();
  EXPECT_EQ(importAll(*editor, "d", text), (Outcomes{kUnchanged, kUnchanged}));
  const std::string newer =
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:x\r\nBEGIN:VTODO\r\nUID:case\r\nSEQUENCE:1\r\n"
      "SUMMARY:Lower again\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";
  EXPECT_EQ(importAll(*editor, "d", newer), Outcomes{kUpdated});
  EXPECT_THAT(readFile(root.path() / "d/Case.ics"), HasSubstr("SUMMARY:Upper\r\n"));
  EXPECT_THAT(readFile(root.path() / "d/case.ics"), HasSubstr("SUMMARY:Lower again\r\n"));
}

TEST_F(VdirItemEditorTest, WhatAnImportOrAnEditBringsIntoAFileTakesTheFilesLineEnds) {
  writeFile(root.path() / "d/lf.ics",
            "BEGIN:VCALENDAR\nVERSION:2.0\nPRODID:-//Unix//EN\nBEGIN:VEVENT\nUID:lf\nDTSTAMP:20261001T000000Z\n"
            "DTSTART:20261102T090000Z\nDTEND:20261102T100000Z\nRRULE:FREQ=WEEKLY;COUNT=4\nSUMMARY:Plain\nEND:VEVENT\n"
            "END:VCALENDAR\n");
  reopen();
  const std::string override =
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:x\r\nBEGIN:VEVENT\r\nUID:lf\r\nDTSTAMP:20261120T000000Z\r\n"
      "RECURRENCE-ID:20261109T090000Z\r\nDTSTART;TZID=Europe/Berlin:20261109T150000\r\n"
      "DTEND;TZID=Europe/Berlin:20261109T160000\r\nSUMMARY:Moved\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n";
  EXPECT_EQ(importAll(*editor, "d", override), Outcomes{kUpdated});
  std::string text = readFile(root.path() / "d/lf.ics");
  EXPECT_THAT(text, HasSubstr("\nSUMMARY:Moved\n"));
  EXPECT_THAT(text, HasSubstr("\nBEGIN:VTIMEZONE\nTZID:Europe/Berlin\n"));  // the system's, as the sender gave none
  EXPECT_EQ(text.find('\r'), std::string::npos);
  std::multiset<std::string> titles;  // that Monday: the fixture's own series, and the moved occurrence
  for (const auto& event : store->events(utc(2026, 11, 9), utc(2026, 11, 10), std::nullopt)) titles.insert(*event->title());
  EXPECT_EQ(titles, (std::multiset<std::string>{"Moved", "Team"}));

  // An edit that brings in a zone writes its definition with the file's line ends too.
  writeFile(root.path() / "d/once.ics",
            "BEGIN:VCALENDAR\nVERSION:2.0\nPRODID:-//Unix//EN\nBEGIN:VEVENT\nUID:once\nDTSTAMP:20261001T000000Z\n"
            "DTSTART:20261102T090000Z\nDTEND:20261102T100000Z\nSUMMARY:Once\nEND:VEVENT\nEND:VCALENDAR\n");
  reopen();
  apply(editor->changeEvent("d/once.ics", std::nullopt, VdirSpan::thisOccurrence,
                            {.start = berlinTime(2026, 11, 2, 10), .end = berlinTime(2026, 11, 2, 11)}));
  text = readFile(root.path() / "d/once.ics");
  EXPECT_THAT(text, HasSubstr("\nTZID:Europe/Berlin\n"));
  EXPECT_EQ(text.find('\r'), std::string::npos);
}

}  // namespace
}  // namespace vesp::vdir
