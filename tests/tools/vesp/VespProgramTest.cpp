// The vesp program, run as a user runs it: over golden trees and generated stores, in a process of
// its own with its own access file, local zone Europe/Berlin.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <ctime>
#include <iomanip>
#include <map>
#include <mutex>
#include <set>
#include <regex>
#include <sstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/platforms/vdir/VdirTestSupport.h"
#include "tests/tools/vesp/IndependentExpansion.h"
#include "tests/tools/vesp/VespProgramFixture.h"

namespace vesp::tool {
namespace {

using namespace vesp::tool::fixture;

TEST_F(VespProgramTest, HelpListsEveryCommand) {
  auto help = vesp({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* command : {"calendars", "reminder-lists", "events", "event", "reminders", "reminder", "watch",
                              "access", "doctor", "new", "edit", "delete", "--store", "--json", "--yes"})
    EXPECT_THAT(help.out, ::testing::HasSubstr(command));
  auto events = vesp({"events", "--help"});
  EXPECT_EQ(events.status, 0);
  EXPECT_THAT(events.out, ::testing::HasSubstr("--from"));
  EXPECT_THAT(events.out, ::testing::HasSubstr("--calendar"));
}

// The commands a help text lists under "Subcommands:".
std::vector<std::string> subcommandsIn(const std::string& help) {
  std::vector<std::string> names;
  const auto start = help.find("Subcommands:\n");
  if (start == std::string::npos) return names;
  std::istringstream lines(help.substr(start + 13));
  for (std::string line; std::getline(lines, line) && !line.empty();) {
    std::istringstream words(line);
    std::string name;
    words >> name;
    names.push_back(name);
  }
  return names;
}

TEST_F(VespProgramTest, EveryCommandsHelpEndsWithAnExample) {
  std::vector<std::vector<std::string>> pending{{}};
  std::size_t seen = 0;
  while (!pending.empty()) {
    auto words = pending.back();
    pending.pop_back();
    words.push_back("--help");
    auto help = vesp(words);
    words.pop_back();
    ASSERT_EQ(help.status, 0) << ::testing::PrintToString(words);
    if (!words.empty()) {
      ++seen;
      EXPECT_THAT(help.out, ::testing::ContainsRegex("Examples?:\n  vesp ")) << ::testing::PrintToString(words);
      EXPECT_THAT(help.out, ::testing::HasSubstr("Exit status: 0 success")) << ::testing::PrintToString(words);
    }
    for (const auto& name : subcommandsIn(help.out)) {
      pending.push_back(words);
      pending.back().push_back(name);
    }
  }
  EXPECT_EQ(seen, 24u);  // every command and subcommand
}

TEST_F(VespProgramTest, AMissingStoreIsAClearError) {
  auto run = vesp({"--store", (config_.path() / "nowhere").string(), "--yes", "calendars"});
  EXPECT_EQ(run.status, 4);
  EXPECT_THAT(run.err, ::testing::HasSubstr("there is no calendar store at"));
}

TEST_F(VespProgramTest, WithoutATerminalOrYesAQuerySaysHowToGrantAccess) {
  auto run = vesp({"--store", store("series"), "events"});
  EXPECT_EQ(run.status, 3);
  EXPECT_THAT(run.err, ::testing::HasSubstr("vesp access events --request"));
  EXPECT_THAT(run.err, ::testing::HasSubstr("--yes"));
  EXPECT_FALSE(fs::exists(config_.path() / "access.json"));
}

TEST_F(VespProgramTest, AccessIsShownRequestedAndReset) {
  auto before = vesp({"--store", store("series"), "--json", "access"});
  EXPECT_EQ(before.status, 0) << before.err;
  EXPECT_EQ(json::parse(before.out), json({{"events", "notDetermined"}, {"reminders", "notDetermined"}}));
  auto granted = vesp({"--store", store("series"), "--yes", "--json", "access", "events", "--request"});
  EXPECT_EQ(granted.status, 0) << granted.err;
  EXPECT_EQ(json::parse(granted.out), json({{"events", "authorised"}}));
  EXPECT_EQ(vesp({"--store", store("series"), "calendars"}).status, 0);
  auto reset = vesp({"--store", store("series"), "--json", "access", "events", "--reset"});
  EXPECT_EQ(json::parse(reset.out), json({{"events", "notDetermined"}}));
  EXPECT_EQ(vesp({"--store", store("series"), "calendars"}).status, 3);
}

TEST_F(VespProgramTest, BadDatesUnknownCalendarsAndUnknownIdentifiersAreClearErrors) {
  auto badDate = vesp({"--store", store("series"), "--yes", "events", "--from", "2026-02-30"});
  EXPECT_EQ(badDate.status, 2);
  EXPECT_THAT(badDate.err, ::testing::HasSubstr("--from"));
  EXPECT_EQ(vesp({"--store", store("series"), "--yes", "events", "--from", "next fortnight"}).status, 2);
  EXPECT_EQ(vesp({"--store", store("series"), "--yes", "events", "--from", "2026-03-02", "--to", "2026-03-01"}).status, 2);
  auto calendar = vesp({"--store", store("series"), "--yes", "events", "--calendar", "nope"});
  EXPECT_EQ(calendar.status, 2);
  EXPECT_THAT(calendar.err, ::testing::HasSubstr("vesp calendars"));
  auto notIdentifier = vesp({"--store", store("series"), "--yes", "event", "{\"identifier\": 3}"});
  EXPECT_EQ(notIdentifier.status, 2);
  EXPECT_THAT(notIdentifier.err, ::testing::HasSubstr("is not an occurrence identifier"));
  auto unknown = vesp({"--store", store("series"), "--yes", "event",
                       R"({"identifier":"noOccurrenceDate","eventIdentifier":"cal/none.ics"})"});
  EXPECT_EQ(unknown.status, 5);
  EXPECT_THAT(unknown.err, ::testing::HasSubstr("No such event"));
  auto reminder = vesp({"--store", store("mapping"), "--yes", "reminder", "tasks/none.ics"});
  EXPECT_EQ(reminder.status, 5);
  EXPECT_EQ(vesp({"--store", store("series"), "frobnicate"}).status, 2);
}


TEST_F(VespWritingTest, AnEventIsCreatedChangedAndDeletedAndADryRunWritesNothing) {
  const auto tree = vdir::testing::treeState(root_.path());
  auto dry = run({"new", "Dentist", "--start", "2026-12-03T15:00", "--duration", "45m", "--calendar", "c", "--dry-run"});
  ASSERT_EQ(dry.status, 0) << dry.err;
  EXPECT_THAT(dry.out, ::testing::HasSubstr("--- would write c/"));
  EXPECT_THAT(dry.out, ::testing::HasSubstr("DTSTART;TZID=Europe/Berlin:20261203T150000\r\n"));
  EXPECT_THAT(dry.out, ::testing::HasSubstr("DTEND;TZID=Europe/Berlin:20261203T154500\r\n"));
  EXPECT_EQ(vdir::testing::treeState(root_.path()), tree);

  auto created = run({"new", "Dentist", "--start", "2026-12-03T15:00", "--duration", "45m", "--location", "Main St 1",
                      "--json"});
  ASSERT_EQ(created.status, 0) << created.err;
  auto record = json::parse(created.out);
  EXPECT_EQ(record["title"], "Dentist");
  EXPECT_EQ(record["location"], "Main St 1");
  EXPECT_EQ(record["startDate"], "2026-12-03T14:00:00Z");
  EXPECT_EQ(record["endDate"], "2026-12-03T14:45:00Z");
  EXPECT_EQ(record["calendar"]["calendarIdentifier"], "c");  // the only writable event calendar
  EXPECT_EQ(record["calendar"]["allowsContentModifications"], true);
  EXPECT_EQ(events("2026-12-03", "2026-12-04").size(), 1u);

  const std::string identifier = record["eventIdentifier"];
  auto moved = run({"edit", identifier, "--start", "2026-12-03T16:30", "--title", "Dentist (later)", "--json"});
  ASSERT_EQ(moved.status, 0) << moved.err;
  EXPECT_EQ(json::parse(moved.out)["startDate"], "2026-12-03T15:30:00Z");
  EXPECT_EQ(json::parse(moved.out)["endDate"], "2026-12-03T16:15:00Z");  // as long as before
  // An event that does not recur needs no span, even named by its occurrence.
  const std::string occurrence = events("2026-12-03", "2026-12-04")[0]["eventInstanceIdentifier"].dump();
  auto located = run({"edit", occurrence, "--location", "Main St 2", "--json"});
  ASSERT_EQ(located.status, 0) << located.err;
  EXPECT_EQ(json::parse(located.out)["location"], "Main St 2");
  auto backwards = run({"edit", identifier, "--end", "2026-12-03T08:00"});
  EXPECT_EQ(backwards.status, 2);
  EXPECT_THAT(backwards.err, ::testing::HasSubstr("the end lies before the start"));

  auto deleted = run({"delete", identifier});
  ASSERT_EQ(deleted.status, 0) << deleted.err;
  EXPECT_THAT(deleted.out, ::testing::HasSubstr("Removed " + identifier));
  EXPECT_TRUE(events("2026-12-03", "2026-12-04").empty());
  EXPECT_EQ(run({"delete", identifier}).status, 5);
}

TEST_F(VespWritingTest, OneOccurrenceAndTheLaterOnesOfASeries) {
  auto all = events("2026-11-01", "2026-12-31");
  ASSERT_EQ(all.size(), 5u);
  // The second occurrence, by the identifier `events --json` printed.
  // An occurrence of a recurring event needs a span, and the message names the three.
  auto unsaid = run({"edit", all[1]["eventInstanceIdentifier"].dump(), "--title", "Team (retro)"});
  EXPECT_EQ(unsaid.status, 2);
  EXPECT_THAT(unsaid.err, ::testing::HasSubstr("repeats: say which occurrences with --span this (only this one), "
                                               "--span future (this one and every later one) or --span all"));
  EXPECT_EQ(run({"delete", all[1]["eventInstanceIdentifier"].dump()}).status, 2);
  auto noOccurrence = run({"delete", "c/weekly.ics", "--span", "this"});
  EXPECT_EQ(noOccurrence.status, 2);
  EXPECT_THAT(noOccurrence.err, ::testing::HasSubstr("--span this needs an occurrence"));
  EXPECT_EQ(run({"delete", "c/weekly.ics", "--span", "this", "--occurrence", "2026-11-09T09:00", "--future"}).status, 2);
  EXPECT_EQ(run({"delete", "c/weekly.ics", "--span", "some"}).status, 2);
  EXPECT_EQ(events("2026-11-01", "2026-12-31").size(), 5u) << "nothing refused was written";

  auto one = run({"edit", all[1]["eventInstanceIdentifier"].dump(), "--span", "this", "--title", "Team (retro)",
                  "--start", "2026-11-09T11:00", "--json"});
  ASSERT_EQ(one.status, 0) << one.err;
  const json changed = json::parse(one.out);  // the occurrence changed, not the series' first
  EXPECT_EQ(changed["eventInstanceIdentifier"], all[1]["eventInstanceIdentifier"]);
  EXPECT_EQ(changed["title"], "Team (retro)");
  EXPECT_EQ(changed["startDate"], "2026-11-09T10:00:00Z");
  auto third = run({"delete", all[2]["eventInstanceIdentifier"].dump(), "--span", "this"});
  ASSERT_EQ(third.status, 0) << third.err;
  auto later = run({"delete", "c/weekly.ics", "--occurrence", "2026-11-30T09:00", "--span", "future"});
  ASSERT_EQ(later.status, 0) << later.err;
  std::vector<std::string> titles;
  for (const auto& event : events("2026-11-01", "2026-12-31")) titles.push_back(event["title"]);
  EXPECT_EQ(titles, (std::vector<std::string>{"Team", "Team (retro)", "Team"}));
  const std::string text = vdir::testing::readFile(root_.path() / "c/weekly.ics");
  EXPECT_THAT(text, ::testing::HasSubstr("X-KEPT:yes\r\n"));
  EXPECT_THAT(text, ::testing::HasSubstr("EXDATE;TZID=Europe/Berlin:20261116T090000\r\n"));
  EXPECT_THAT(text, ::testing::HasSubstr("RECURRENCE-ID;TZID=Europe/Berlin:20261109T090000\r\n"));
  // --span all, from any occurrence, is the whole series: here its file goes.
  auto whole = run({"delete", all[1]["eventInstanceIdentifier"].dump(), "--span", "all"});
  ASSERT_EQ(whole.status, 0) << whole.err;
  EXPECT_TRUE(events("2026-11-01", "2026-12-31").empty());
  EXPECT_FALSE(fs::exists(root_.path() / "c/weekly.ics"));
}

TEST_F(VespWritingTest, RepeatAndAlarmsChangeTheWholeSeries) {
  auto once = run({"edit", "c/weekly.ics", "--occurrence", "2026-11-09T09:00", "--span", "this", "--repeat",
                   "FREQ=DAILY"});
  EXPECT_EQ(once.status, 2);
  EXPECT_THAT(once.err, ::testing::HasSubstr("belongs to the whole series"));
  auto bad = run({"edit", "c/weekly.ics", "--alarm", "in a while"});
  EXPECT_EQ(bad.status, 2);
  EXPECT_THAT(bad.err, ::testing::HasSubstr("is not a time from the start"));
  auto changed = run({"edit", "c/weekly.ics", "--repeat", "FREQ=WEEKLY;COUNT=2", "--alarm", "-1h30m", "--alarm", "+5m",
                      "--json"});
  ASSERT_EQ(changed.status, 0) << changed.err;
  const json record = json::parse(changed.out);
  EXPECT_EQ(record["recurrenceRules"][0]["recurrenceEnd"]["occurrenceCount"], 2);
  EXPECT_EQ(record["alarms"].size(), 2u);
  EXPECT_EQ(record["alarms"][0]["relativeOffset"], -5400.0);
  EXPECT_EQ(record["alarms"][1]["relativeOffset"], 300.0);
  EXPECT_EQ(events("2026-11-01", "2026-12-31").size(), 2u);
  const std::string text = vdir::testing::readFile(root_.path() / "c/weekly.ics");
  EXPECT_THAT(text, ::testing::HasSubstr("TRIGGER:-PT1H30M\r\n"));
  EXPECT_THAT(text, ::testing::HasSubstr("X-KEPT:yes\r\n"));
  auto timed = run({"edit", "c/weekly.ics", "--alarm", "2026-11-01T20:00", "--alarm", "-10m", "--json"});
  ASSERT_EQ(timed.status, 0) << timed.err;
  EXPECT_EQ(json::parse(timed.out)["alarms"][0]["absoluteDate"], "2026-11-01T19:00:00Z");
  EXPECT_THAT(vdir::testing::readFile(root_.path() / "c/weekly.ics"),
              ::testing::HasSubstr("TRIGGER;VALUE=DATE-TIME:20261101T190000Z\r\n"));
  EXPECT_EQ(run({"edit", "c/weekly.ics", "--alarm", "2026-13-01T20:00"}).status, 2);
  auto none = run({"edit", "c/weekly.ics", "--alarm", "none", "--json"});
  ASSERT_EQ(none.status, 0) << none.err;
  EXPECT_TRUE(json::parse(none.out)["alarms"].is_null());
  // With --future the rule is the one of the series that continues: 2 November, then 9 to 11 November daily.
  auto future = run({"edit", "c/weekly.ics", "--occurrence", "2026-11-09T09:00", "--future", "--repeat",
                     "FREQ=DAILY;COUNT=3"});
  ASSERT_EQ(future.status, 0) << future.err;
  std::vector<std::string> starts;
  for (const json& event : events("2026-11-01", "2026-12-31")) starts.push_back(event["startDate"]);
  EXPECT_EQ(starts, (std::vector<std::string>{"2026-11-02T08:00:00Z", "2026-11-09T08:00:00Z", "2026-11-10T08:00:00Z",
                                              "2026-11-11T08:00:00Z"}));
  // --repeat none: the first series (by now 2 November alone) stops repeating; the one split off stays.
  auto stopped = run({"edit", "c/weekly.ics", "--repeat", "none", "--json"});
  ASSERT_EQ(stopped.status, 0) << stopped.err;
  EXPECT_TRUE(json::parse(stopped.out)["recurrenceRules"].is_null());
  EXPECT_THAT(vdir::testing::readFile(root_.path() / "c/weekly.ics"), ::testing::Not(::testing::HasSubstr("RRULE")));
  EXPECT_EQ(events("2026-11-01", "2026-12-31").size(), 4u);
}

TEST_F(VespWritingTest, NewEventsGoToTheDefaultCalendarSetForTheStore) {
  writeFile(root_.path() / "b/one.ics", vdir::testing::readFile(root_.path() / "c/weekly.ics"));
  auto shown = run({"config", "--json"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_TRUE(json::parse(shown.out)["settings"]["default-calendar"]["value"].is_null());
  EXPECT_FALSE(fs::exists(settingsFile())) << "showing the settings writes nothing";

  auto first = run({"new", "Before", "--start", "2026-12-03T15:00", "--json"});
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(json::parse(first.out)["calendar"]["calendarIdentifier"], "b") << "the first writable calendar";

  EXPECT_EQ(run({"config", "default-calendar", "nope"}).status, 5);
  ASSERT_EQ(run({"reminder", "new", "Call", "--list", "t"}).status, 0);
  auto list = run({"config", "default-calendar", "t"});
  EXPECT_EQ(list.status, 2);
  EXPECT_THAT(list.err, ::testing::HasSubstr("\"t\" is a reminder list"));
  EXPECT_FALSE(fs::exists(settingsFile())) << "a refused setting writes nothing";

  auto set = run({"config", "default-calendar", "c", "--json"});
  ASSERT_EQ(set.status, 0) << set.err;
  const json setting = json::parse(set.out)["settings"]["default-calendar"];
  EXPECT_EQ(setting["value"], "c");
  // Written as a line of the configuration file, created with every setting explained.
  const std::string file = vdir::testing::readFile(settingsFile());
  EXPECT_THAT(file, ::testing::HasSubstr("\n# default-calendar = personal\ndefault-calendar = c\n"));
  EXPECT_THAT(file, ::testing::HasSubstr("# week-start = monday\n"));
  EXPECT_THAT(setting["from"].get<std::string>(), ::testing::StartsWith("line "));
  EXPECT_EQ(fs::status(settingsFile()).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
  auto second = run({"new", "After", "--start", "2026-12-03T16:00", "--json"});
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(json::parse(second.out)["calendar"]["calendarIdentifier"], "c");
  auto other = run({"new", "Chosen", "--start", "2026-12-03T17:00", "--calendar", "b", "--json"});
  ASSERT_EQ(other.status, 0) << other.err;
  EXPECT_EQ(json::parse(other.out)["calendar"]["calendarIdentifier"], "b") << "--calendar wins";

  // A default calendar that went away is an error with the way out, never a silent fallback.
  fs::rename(root_.path() / "c", root_.path() / "gone");
  auto lost = run({"new", "Lost", "--start", "2026-12-03T18:00"});
  EXPECT_EQ(lost.status, 5);
  EXPECT_THAT(lost.err, ::testing::HasSubstr("the default calendar \"c\" (default-calendar, from line "));
  EXPECT_THAT(lost.err, ::testing::HasSubstr(") is not in the store: give --calendar"));
  auto unset = run({"config", "default-calendar", "--unset", "--json"});
  ASSERT_EQ(unset.status, 0) << unset.err;
  EXPECT_TRUE(json::parse(unset.out)["settings"]["default-calendar"]["value"].is_null());
  EXPECT_THAT(vdir::testing::readFile(settingsFile()), ::testing::Not(::testing::HasSubstr("\ndefault-calendar =")));
  EXPECT_EQ(run({"new", "Again", "--start", "2026-12-03T18:00"}).status, 0);
}

TEST_F(VespWritingTest, ShortReferencesNameOccurrencesForEventEditAndDelete) {
  auto human = run({"events", "--refs", "--from", "2026-11-01", "--to", "2026-12-31"});
  ASSERT_EQ(human.status, 0) << human.err;
  auto listed = run({"events", "--refs", "--json", "--from", "2026-11-01", "--to", "2026-12-31"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  const json all = json::parse(listed.out);
  ASSERT_EQ(all.size(), 5u);
  const std::regex form(R"(\d{8}-[0-9a-f]{4,16})");
  for (const json& event : all) {
    const std::string reference = event["reference"];
    EXPECT_TRUE(std::regex_match(reference, form)) << reference;
    EXPECT_THAT(human.out, ::testing::HasSubstr("  " + reference + "  "));
    auto shown = run({"event", reference, "--json"});
    ASSERT_EQ(shown.status, 0) << shown.err;
    EXPECT_EQ(json::parse(shown.out)["eventInstanceIdentifier"], event["eventInstanceIdentifier"]);
  }
  EXPECT_EQ(all[1]["reference"].get<std::string>().substr(0, 9), "20261109-") << "the local day of the occurrence";

  // A reference outlives an edit of its occurrence, and names it for delete.
  const std::string second = all[1]["reference"];
  ASSERT_EQ(run({"edit", second, "--span", "this", "--title", "Team (retro)"}).status, 0);
  auto retitled = run({"event", second, "--json"});
  ASSERT_EQ(retitled.status, 0) << retitled.err;
  EXPECT_EQ(json::parse(retitled.out)["title"], "Team (retro)");
  EXPECT_EQ(run({"delete", second}).status, 2) << "a reference to a repeating event's occurrence needs a span too";
  ASSERT_EQ(run({"delete", second, "--span", "this"}).status, 0);
  auto gone = run({"event", second});
  EXPECT_EQ(gone.status, 5);
  EXPECT_THAT(gone.err, ::testing::HasSubstr("`vesp events --refs --from 2026-11-09` prints that day's references"));

  // Two events whose hashes share five digits on one day get references long enough to tell them
  // apart, and the shorter form that fits both is refused as ambiguous.
  for (const char* name : {"e214", "e263"})
    writeFile(root_.path() / "c" / (std::string(name) + ".ics"),
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:x\r\nBEGIN:VEVENT\r\nUID:" + std::string(name) +
                  "\r\nDTSTART:20261202T080000Z\r\nSUMMARY:" + name + "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  const json day = json::parse(run({"events", "--refs", "--json", "--from", "2026-12-02", "--to", "2026-12-03"}).out);
  ASSERT_EQ(day.size(), 2u);
  EXPECT_EQ(day[0]["reference"], "20261202-9d5342");
  EXPECT_EQ(day[1]["reference"], "20261202-9d5340");
  auto ambiguous = run({"event", "20261202-9d53"});
  EXPECT_EQ(ambiguous.status, 2);
  EXPECT_THAT(ambiguous.err, ::testing::HasSubstr("names 2 occurrences"));
  auto one = run({"event", "20261202-9d5340", "--json"});
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(json::parse(one.out)["title"], "e263");
}

// Starts vesp on `arguments` with the test's environment; its pid.
pid_t spawnVesp(const std::vector<std::string>& arguments, const fs::path& accessFile) {
  std::vector<std::string> words{VESP_PROGRAM};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::string access = "VESP_ACCESS_FILE=" + accessFile.string(), zone = "TZ=Europe/Berlin", path = "PATH=/usr/bin:/bin";
  std::vector<char*> envp{access.data(), zone.data(), path.data()};
  for (const char* kept : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"})
    if (const char* value = std::getenv(kept)) envp.push_back(::strdup((std::string(kept) + "=" + value).c_str()));
  envp.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, 0), ::dup2(null, 1), ::dup2(null, 2);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  for (std::size_t i = 3; i + 1 < envp.size(); ++i) std::free(envp[i]);
  return pid;
}

// The SUMMARY of the event in `text`, or "" when the text is not a whole calendar.
std::string wholeTitle(const std::string& text) {
  if (text.rfind("BEGIN:VCALENDAR\r\n", 0) != 0 || text.size() < 15 || text.substr(text.size() - 15) != "END:VCALENDAR\r\n")
    return "";
  const auto at = text.find("\r\nSUMMARY:");
  return at == std::string::npos ? "" : text.substr(at + 10, text.find("\r\n", at + 10) - at - 10);
}

TEST_F(VespWritingTest, SavesKilledAtRandomMomentsLeaveEveryFileWholeOldOrNew) {
  const fs::path access = config_.path() / "access.json";
  ASSERT_EQ(run({"events"}).status, 0);  // records the access decision
  // How long a save takes here at best, so that the kills fall inside saves.
  auto span = std::chrono::microseconds::max();
  for (const char* warm : {"W1", "W2", "T0"}) {
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(run({"edit", "c/weekly.ics", "--title", warm}).status, 0);
    span = std::min(span, std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started));
  }
  std::mt19937 random(20261125);
  std::string title = "T0";
  std::set<std::string> created;  // titles of new events whose save may have completed
  int finished = 0;
  for (int i = 1; i <= 200; ++i) {
    const std::string next = "T" + std::to_string(i);
    const bool creates = i % 4 == 0;
    std::vector<std::string> arguments{"--store", root_.path().string(), "--yes"};
    if (creates) {
      arguments.insert(arguments.end(), {"new", next, "--start", "2026-12-03T15:00", "--calendar", "c"});
      created.insert(next);
    } else {
      arguments.insert(arguments.end(), {"edit", "c/weekly.ics", "--title", next});
    }
    const pid_t pid = spawnVesp(arguments, access);
    ASSERT_GT(pid, 0);
    std::this_thread::sleep_for(std::chrono::microseconds(random() % span.count()));
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    finished += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 1 : 0;
    // The series' file is the one before or the one after, never a part of either.
    const std::string now = wholeTitle(vdir::testing::readFile(root_.path() / "c/weekly.ics"));
    if (creates) {
      ASSERT_EQ(now, title) << "save " << i;
    } else {
      ASSERT_TRUE(now == title || now == next) << "save " << i << ": \"" << now << "\"";
      title = now;
    }
  }
  std::size_t items = 0, temporaries = 0;
  for (const auto& entry : fs::directory_iterator(root_.path() / "c")) {
    const std::string name = entry.path().filename().string();
    if (name[0] == '.') {
      ++temporaries;  // a killed save's temporary file: hidden, never served
      continue;
    }
    ++items;
    const std::string text = vdir::testing::readFile(entry.path());
    const std::string found = wholeTitle(text);
    EXPECT_TRUE(name == "weekly.ics" || created.count(found)) << name << " is not whole: " << text;
  }
  auto doctor = run({"doctor"});
  EXPECT_EQ(doctor.status, 0) << doctor.err;
  EXPECT_THAT(doctor.out, ::testing::HasSubstr("No problems found."));
  EXPECT_EQ(json::parse(run({"events", "--from", "2026-12-03", "--to", "2026-12-04", "--json"}).out).size(), items - 1);
  EXPECT_LT(finished, 200) << "no kill fell inside a save";
  // The store still takes saves: nothing a killed save left behind is in the way.
  auto after = run({"edit", "c/weekly.ics", "--title", "After", "--json"});
  ASSERT_EQ(after.status, 0) << after.err;
  EXPECT_EQ(wholeTitle(vdir::testing::readFile(root_.path() / "c/weekly.ics")), "After");
  RecordProperty("finished", finished);
  RecordProperty("leftTemporaries", static_cast<int>(temporaries));
}

TEST_F(VespWritingTest, AReminderIsCreatedCompletedReopenedAndDeleted) {
  // An empty collection is a calendar until it holds to-dos: the first one needs --list.
  auto unlisted = run({"reminder", "new", "Buy stamps"});
  EXPECT_EQ(unlisted.status, 2);
  EXPECT_THAT(unlisted.err, ::testing::HasSubstr("--list chooses one"));
  auto created = run({"reminder", "new", "Buy stamps", "--due", "2026-12-04", "--priority", "1", "--list", "t", "--json"});
  ASSERT_EQ(created.status, 0) << created.err;
  auto record = json::parse(created.out);
  EXPECT_EQ(record["dueDateComponents"], json({{"year", 2026}, {"month", 12}, {"day", 4}}));
  EXPECT_EQ(record["priority"], "high");
  EXPECT_EQ(record["calendar"]["calendarIdentifier"], "t");
  auto second = run({"reminder", "new", "Post them", "--json"});  // now "t" is a reminder list
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(json::parse(second.out)["calendar"]["calendarIdentifier"], "t");
  const std::string identifier = record["calendarItemIdentifier"];
  auto done = run({"reminder", "done", identifier, "--json"});
  ASSERT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(json::parse(done.out)["isCompleted"], true);
  auto undone = run({"reminder", "undo", identifier, "--json"});
  ASSERT_EQ(undone.status, 0) << undone.err;
  EXPECT_EQ(json::parse(undone.out)["isCompleted"], false);
  auto shown = run({"reminder", identifier});
  EXPECT_THAT(shown.out, ::testing::HasSubstr("Buy stamps"));
  EXPECT_EQ(run({"reminder", "delete", identifier}).status, 0);
  EXPECT_EQ(run({"reminder", identifier}).status, 5);
  EXPECT_EQ(run({"reminder"}).status, 2);
}

// "t" holds to-dos only, as a CalDAV task list does.
TEST_F(VespWritingTest, RemindersOfAListOfToDosAloneAreListedByItsIdentifier) {
  ASSERT_EQ(run({"reminder", "new", "Buy stamps", "--due", "2026-12-04", "--list", "t"}).status, 0);
  ASSERT_EQ(run({"reminder", "new", "Post them", "--due", "2026-12-05", "--list", "t"}).status, 0);
  auto listed = run({"reminders", "--list", "t", "--from", "2026-12-01", "--to", "2026-12-08", "--json"});
  ASSERT_EQ(listed.status, 0) << listed.err;
  std::set<std::string> titles;
  for (const auto& reminder : json::parse(listed.out)) titles.insert(reminder["title"]);
  EXPECT_THAT(titles, ::testing::ElementsAre("Buy stamps", "Post them"));
  auto unknown = run({"reminders", "--list", "c"});  // a calendar of events, not a list
  EXPECT_EQ(unknown.status, 2);
  EXPECT_THAT(unknown.err, ::testing::HasSubstr("`vesp reminder-lists` lists them"));
}

TEST_F(VespWritingTest, TheAgendaShowsEachDayOfALongOccurrenceAndMarksCancelledOnes) {
  auto event = [&](const std::string& uid, const std::string& lines) {
    writeFile(root_.path() / "c" / (uid + ".ics"),
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VEVENT\r\nUID:" + uid +
                  "\r\nDTSTAMP:20261001T000000Z\r\n" + lines + "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  };
  event("trip", "SUMMARY:Trip\r\nDTSTART;VALUE=DATE:20261201\r\nDTEND;VALUE=DATE:20261206");
  event("conference", "SUMMARY:Conference\r\nDTSTART:20261202T150000Z\r\nDTEND:20261204T110000Z");
  event("standup", "SUMMARY:Standup\r\nDTSTART:20261203T090000Z\r\nDTEND:20261203T100000Z\r\nSTATUS:CANCELLED");
  event("late", "SUMMARY:Late\r\nDTSTART:20261203T220000Z\r\nDTEND:20261203T230000Z");
  auto agenda = run({"events", "--from", "2026-12-03", "--to", "2026-12-05"});
  ASSERT_EQ(agenda.status, 0) << agenda.err;
  EXPECT_EQ(agenda.out,
            "Thu 03 Dec 2026\n"
            "  all day      Trip (day 3/5)  [c]\n"
            "  all day      Conference (day 2/3)  [c]\n"
            "  10:00-11:00  CANCELLED Standup  [c]\n"
            "  23:00-00:00  Late  [c]\n"  // ends at midnight: not on Friday
            "\n"
            "Fri 04 Dec 2026\n"
            "  all day      Trip (day 4/5)  [c]\n"
            "  until 12:00  Conference (day 3/3)  [c]\n");
  auto first = run({"events", "--from", "2026-12-02", "--to", "2026-12-03"});
  EXPECT_THAT(first.out, ::testing::HasSubstr("  from 16:00   Conference (day 1/3)  [c]\n"));
  EXPECT_THAT(first.out, ::testing::HasSubstr("  all day      Trip (day 2/5)  [c]\n"));
}

TEST_F(VespWritingTest, NotesKeepTheirLinesDueAndStartTimesAreLocalAndControlsAreNeutralised) {
  writeFile(root_.path() / "c/notes.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VEVENT\r\nUID:notes\r\n"
            "DTSTAMP:20261001T000000Z\r\nDTSTART:20261203T090000Z\r\nDTEND:20261203T100000Z\r\n"
            "SUMMARY:Bell\xC2\x9B""31m\x1B[0m\r\nDESCRIPTION:first line\\nsecond\tcolumn\\nthird\r\n"
            "END:VEVENT\r\nEND:VCALENDAR\r\n");
  writeFile(root_.path() / "t/call.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VTODO\r\nUID:call\r\n"
            "DTSTAMP:20261001T000000Z\r\nSUMMARY:Call\r\nDTSTART:20261203T230000Z\r\nDUE:20261204T110000Z\r\n"
            "DESCRIPTION:ask about\\nthe card\r\nEND:VTODO\r\nEND:VCALENDAR\r\n");
  auto agenda = run({"events", "--from", "2026-12-03", "--to", "2026-12-04"});
  EXPECT_THAT(agenda.out, ::testing::HasSubstr("  10:00-11:00  Bell\\u009B31m\\x1B[0m  [c]\n"));
  const json listed = events("2026-12-03", "2026-12-04");
  ASSERT_EQ(listed.size(), 1u);
  auto event = run({"event", listed[0]["eventInstanceIdentifier"].dump()});
  ASSERT_EQ(event.status, 0) << event.err;
  EXPECT_EQ(event.out.find('\x1b'), std::string::npos);
  EXPECT_THAT(event.out, ::testing::HasSubstr("  notes       first line\n              second\tcolumn\n"
                                              "              third\n"));
  auto reminder = run({"reminder", "t/call.ics"});
  ASSERT_EQ(reminder.status, 0) << reminder.err;
  EXPECT_THAT(reminder.out, ::testing::HasSubstr("  due         2026-12-04 12:00\n"));  // 11:00 UTC in Berlin
  EXPECT_THAT(reminder.out, ::testing::HasSubstr("  starts      2026-12-04 00:00\n"));  // the next day there
  // Read again from the store's cache, the times are the same.
  EXPECT_EQ(run({"reminder", "t/call.ics"}).out, reminder.out);
  EXPECT_THAT(reminder.out, ::testing::HasSubstr("  notes       ask about\n              the card\n"));
  EXPECT_THAT(run({"reminders"}).out, ::testing::HasSubstr("[ ] Call  due 2026-12-04 12:00  [Tasks]\n"));
}

TEST_F(VespWritingTest, ACalendarThatCannotBeWrittenIsAClearFailure) {
  ASSERT_EQ(::chmod((root_.path() / "c").c_str(), 0555), 0);
  auto refused = run({"new", "Dentist", "--start", "2026-12-03T15:00", "--calendar", "c"});
  ::chmod((root_.path() / "c").c_str(), 0755);
  EXPECT_EQ(refused.status, 7);
  EXPECT_THAT(refused.err, ::testing::HasSubstr("is read-only: its directory cannot be written"));
  EXPECT_EQ(run({"new", "Dentist"}).status, 2);  // no --start
  EXPECT_EQ(run({"new", "Dentist", "--start", "2026-12-03", "--end", "2026-12-04", "--duration", "1h"}).status, 2);

  // A file served with a UID made up for it would not be written back as the same item.
  writeFile(root_.path() / "c/repaired.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nSUMMARY:No UID\r\nDTSTART:20261203T090000Z\r\n"
            "END:VEVENT\r\nEND:VCALENDAR\r\n");
  const auto before = vdir::testing::treeState(root_.path());
  auto repaired = run({"edit", "c/repaired.ics", "--title", "Named"});
  EXPECT_EQ(repaired.status, 7) << repaired.err;
  EXPECT_THAT(repaired.err, ::testing::HasSubstr("c/repaired.ics was not read whole"));
  EXPECT_EQ(vdir::testing::treeState(root_.path()), before);
}

TEST_F(VespWritingTest, AFileAnotherProgramChangesDuringASaveIsAConflictAndKeepsItsVersion) {
  ASSERT_EQ(run({"events"}).status, 0);
  // Another program replaces the file again and again, whole each time (a new file renamed over it).
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    const fs::path file = root_.path() / "c/weekly.ics", next = root_.path() / "c/.writer";
    for (int written = 0; !stop; ++written) {
      writeFile(next, "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VEVENT\r\nUID:weekly\r\n"
                      "DTSTAMP:20261001T000000Z\r\nDTSTART:20261102T080000Z\r\nDTEND:20261102T090000Z\r\n"
                      "RRULE:FREQ=WEEKLY;COUNT=5\r\nSUMMARY:Theirs " +
                          std::to_string(written) + "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
      fs::rename(next, file);
    }
  });
  // Each run either saves before the next replacement or finds the file changed and writes nothing.
  std::set<int> statuses;
  std::string conflict;
  for (int attempt = 0; attempt < 200 && conflict.empty(); ++attempt) {
    auto saved = run({"edit", "c/weekly.ics", "--title", "Mine"});
    statuses.insert(saved.status);
    if (saved.status == 6) conflict = saved.err;
  }
  stop = true;
  writer.join();
  EXPECT_THAT(statuses, ::testing::IsSubsetOf({0, 6}));
  EXPECT_THAT(conflict, ::testing::HasSubstr("changed on disk since it was read: nothing was saved"));
  const std::string kept = vdir::testing::readFile(root_.path() / "c/weekly.ics");
  EXPECT_THAT(kept, ::testing::HasSubstr("SUMMARY:Theirs "));
}

TEST_F(VespWritingTest, ImportBringsEachItemInOnceAndSaysWhatItDid) {
  const std::string invitation =
      "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Sender//Mail//EN\r\nMETHOD:REQUEST\r\n"
      "BEGIN:VEVENT\r\nUID:invite-1\r\nDTSTAMP:20261120T000000Z\r\nSEQUENCE:0\r\n"
      "DTSTART;TZID=Europe/Berlin:20261203T150000\r\nDTEND;TZID=Europe/Berlin:20261203T160000\r\n"
      "SUMMARY:Review\r\nEND:VEVENT\r\n"
      "BEGIN:VTODO\r\nUID:task-2\r\nDTSTAMP:20261120T000000Z\r\nSUMMARY:Slides\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";
  const fs::path file = config_.path() / "invitation.ics";
  writeFile(file, invitation);
  const auto tree = vdir::testing::treeState(root_.path());

  auto dry = run({"import", file.string(), "--calendar", "c", "--dry-run"});
  ASSERT_EQ(dry.status, 0) << dry.err;
  EXPECT_THAT(dry.out, ::testing::HasSubstr("would add: \"Review\" (UID invite-1) as c/invite-1.ics\n"));
  EXPECT_THAT(dry.out, ::testing::HasSubstr("--- would write c/invite-1.ics\nBEGIN:VCALENDAR\r\n"));
  EXPECT_THAT(dry.out, ::testing::Not(::testing::HasSubstr("METHOD")));
  EXPECT_EQ(vdir::testing::treeState(root_.path()), tree);

  auto imported = run({"import", file.string(), "--calendar", "c", "--json"});
  ASSERT_EQ(imported.status, 0) << imported.err;
  const json results = json::parse(imported.out);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0]["outcome"], "added");
  EXPECT_EQ(results[0]["kind"], "event");
  EXPECT_EQ(results[0]["identifier"], "c/invite-1.ics");
  EXPECT_EQ(results[1]["outcome"], "added");
  EXPECT_EQ(results[1]["kind"], "reminder");
  EXPECT_EQ(results[1]["title"], "Slides");
  const json december = events("2026-12-03", "2026-12-04");
  ASSERT_EQ(december.size(), 1u);
  EXPECT_EQ(december[0]["title"], "Review");
  EXPECT_EQ(december[0]["startDate"], "2026-12-03T14:00:00Z");
  auto task = run({"reminder", "c/task-2.ics", "--json"});
  ASSERT_EQ(task.status, 0) << task.err;
  EXPECT_EQ(json::parse(task.out)["title"], "Slides");

  // Again: nothing is newer, so nothing is written.
  const auto imported1 = vdir::testing::treeState(root_.path());
  auto again = run({"import", file.string(), "--calendar", "c"});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_THAT(again.out, ::testing::HasSubstr("unchanged: \"Review\" (UID invite-1) the calendar's copy is as new or "
                                              "newer: c/invite-1.ics\n"));
  EXPECT_THAT(again.out, ::testing::HasSubstr("unchanged: \"Slides\""));
  EXPECT_EQ(vdir::testing::treeState(root_.path()), imported1);

  // A newer version of the event (its SEQUENCE raised) replaces the calendar's copy.
  std::string moved = invitation;
  moved.replace(moved.find("SEQUENCE:0"), 10, "SEQUENCE:1");
  moved.replace(moved.find("SUMMARY:Review"), 14, "SUMMARY:Review (moved)");
  moved.replace(moved.find("20261203T150000"), 15, "20261203T170000");
  writeFile(file, moved);
  auto updated = run({"import", file.string(), "--calendar", "c"});
  ASSERT_EQ(updated.status, 0) << updated.err;
  EXPECT_THAT(updated.out, ::testing::HasSubstr("updated: \"Review (moved)\" (UID invite-1) as c/invite-1.ics\n"));
  const json later = events("2026-12-03", "2026-12-04");
  ASSERT_EQ(later.size(), 1u);
  EXPECT_EQ(later[0]["title"], "Review (moved)");
  EXPECT_EQ(later[0]["startDate"], "2026-12-03T16:00:00Z");

  // Files that cannot be read or are not iCalendar stop the import before anything is written.
  const auto before = vdir::testing::treeState(root_.path());
  writeFile(config_.path() / "note.ics", "not a calendar\n");
  auto missing = run({"import", file.string(), (config_.path() / "absent.ics").string(), "--calendar", "c"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_THAT(missing.err, ::testing::HasSubstr("cannot read"));
  auto garbage = run({"import", (config_.path() / "note.ics").string(), "--calendar", "c"});
  EXPECT_EQ(garbage.status, 1);
  EXPECT_THAT(garbage.err, ::testing::HasSubstr("not an iCalendar file"));
  auto nowhere = run({"import", file.string(), "--calendar", "nowhere"});
  EXPECT_EQ(nowhere.status, 2);  // as for `vesp new`: a calendar given that is not there
  EXPECT_THAT(nowhere.err, ::testing::HasSubstr("there is no calendar \"nowhere\""));
  EXPECT_EQ(vdir::testing::treeState(root_.path()), before);
}

// Skips without `program`, except on CI, where scripts/test must have installed `package`.
bool installed(const std::string& program, const std::string& package) {
  if (shell("command -v " + program + " > /dev/null").status == 0) return true;
  const char* ci = std::getenv("CI");
  EXPECT_FALSE(ci && std::string(ci) == "true") << "CI must install the Debian package " << package;
  return false;
}

// An instant as the JSON prints it ("2026-11-02T08:00:00Z"), in local time as `format` writes it;
// `daysBack` days earlier first.
std::string localTime(const std::string& instant, const char* format, int daysBack = 0) {
  std::tm utc{};
  std::istringstream(instant) >> std::get_time(&utc, "%Y-%m-%dT%H:%M:%SZ");
  const std::time_t time = ::timegm(&utc) - daysBack * 86400;
  std::tm local{};
  ::localtime_r(&time, &local);
  char text[64];
  std::strftime(text, sizeof text, format, &local);
  return text;
}

TEST_F(VespWritingTest, KhalReadsTheOccurrencesVespWrote) {
  if (!installed("khal", "khal")) GTEST_SKIP() << "needs the Debian package khal (scripts/test installs it)";
  // An override moved in time, an exclusion, a split series, a new event and a new all-day event.
  ASSERT_EQ(run({"edit", "c/weekly.ics", "--occurrence", "2026-11-09T09:00", "--span", "this", "--title",
                 "Team (retro)", "--start",
                 "2026-11-09T11:00"}).status, 0);
  ASSERT_EQ(run({"delete", "c/weekly.ics", "--occurrence", "2026-11-16T09:00", "--span", "this"}).status, 0);
  ASSERT_EQ(run({"edit", "c/weekly.ics", "--occurrence", "2026-11-23T09:00", "--future", "--title", "Team (new)",
                 "--start", "2026-11-23T10:00"}).status, 0);
  ASSERT_EQ(run({"new", "Dentist", "--start", "2026-11-25T15:00", "--duration", "45m"}).status, 0);
  ASSERT_EQ(run({"new", "Trip", "--start", "2026-11-27", "--end", "2026-11-29", "--all-day"}).status, 0);
  // A rule given with a day as its UNTIL, which RFC 5545 wants in UTC for a zoned start.
  ASSERT_EQ(run({"new", "Yoga", "--start", "2026-12-01T18:00", "--duration", "1h", "--repeat",
                 "FREQ=WEEKLY;BYDAY=TU,TH;UNTIL=20261210", "--alarm", "-15m"}).status, 0);

  // khal prints an all-day event's last day, not the day after it, and a multi-day one on each day.
  std::set<std::string> ours;
  const json listed = events("2026-10-01", "2027-01-31");
  for (const auto& event : listed) {
    const bool allDay = event["isAllDay"];
    const char* format = allDay ? "%Y-%m-%d" : "%Y-%m-%d %H:%M";
    ours.insert(localTime(event["startDate"], format) + " " + localTime(event["endDate"], format, allDay ? 1 : 0) + " " +
                event["title"].get<std::string>());
  }
  EXPECT_EQ(ours.size(), listed.size());
  EXPECT_EQ(ours.size(), 10u);  // two left of the old series, two of the new one, two new events, four of Yoga

  auto khal =
      shell(khalCommand() + " list --format '{start} {end} {title}' --day-format '' 2026-10-01 2027-01-31 2>&1");
  ASSERT_EQ(khal.status, 0) << khal.out;
  std::set<std::string> theirs;
  std::istringstream lines(khal.out);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) theirs.insert(line);
  EXPECT_EQ(theirs, ours) << khal.out;
}

TEST_F(VespWritingTest, KhalShowsTheSameWeekDayByDayWithEventsOverSeveralDays) {
  if (!installed("khal", "khal")) GTEST_SKIP() << "needs the Debian package khal (scripts/test installs it)";
  auto event = [&](const std::string& uid, const std::string& title, const std::string& times) {
    writeFile(root_.path() / "c" / (uid + ".ics"),
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VEVENT\r\nUID:" + uid +
                  "\r\nDTSTAMP:20261001T000000Z\r\n" + times + "SUMMARY:" + title +
                  "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  };
  event("trip", "Trip", "DTSTART;TZID=Europe/Berlin:20261112T160000\r\nDTEND;TZID=Europe/Berlin:20261114T120000\r\n");
  event("conference", "Conference", "DTSTART;VALUE=DATE:20261114\r\nDTEND;VALUE=DATE:20261117\r\n");
  event("holiday", "Holiday", "DTSTART;VALUE=DATE:20261106\r\nDTEND;VALUE=DATE:20261110\r\n");
  event("late", "Late", "DTSTART;TZID=Europe/Berlin:20261111T220000\r\nDTEND;TZID=Europe/Berlin:20261112T000000\r\n");
  event("night", "Night", "DTSTART;TZID=Europe/Berlin:20261110T230000\r\nDTEND;TZID=Europe/Berlin:20261111T010000\r\n");

  // Vesp's agenda of the week, as (day, title) pairs.
  auto agenda = run({"events", "--week", "--from", "2026-11-12"});
  ASSERT_EQ(agenda.status, 0) << agenda.err;
  static const std::regex line(R"(  .{13}(.*?)( \(day \d+/\d+\))?  \[c\])");
  std::set<std::pair<std::string, std::string>> ours;
  std::string day;
  std::istringstream text(agenda.out);
  for (std::string row; std::getline(text, row);) {
    std::smatch match;
    std::tm fields{};
    if (std::regex_match(row, match, line)) {
      ours.emplace(day, match[1]);
    } else if (!row.empty() && strptime(row.c_str(), "%a %d %b %Y", &fields)) {
      char date[16];
      std::strftime(date, sizeof date, "%Y-%m-%d", &fields);
      day = date;
    }
  }
  EXPECT_EQ(ours.size(), 10u) << agenda.out;

  // A wider range than the week, its days outside the week left out: so whether khal's end is
  // inclusive does not matter.
  auto khal = shell(khalCommand() + " list --format '{title}' --day-format '{date}' 2026-11-07 2026-11-18 2>&1");
  ASSERT_EQ(khal.status, 0) << khal.out;
  std::set<std::pair<std::string, std::string>> theirs;
  std::istringstream lines(khal.out);
  for (std::string row; std::getline(lines, row);) {
    if (std::regex_match(row, std::regex(R"(\d{4}-\d{2}-\d{2})")))
      day = row;
    else if (!row.empty() && day >= "2026-11-09" && day <= "2026-11-15")
      theirs.emplace(day, row);
  }
  EXPECT_EQ(theirs, ours) << khal.out << "\n" << agenda.out;
}

TEST_F(VespWritingTest, TodomanReadsTheRemindersVespWrote) {
  if (!installed("todoman", "todoman")) GTEST_SKIP() << "needs the Debian package todoman (scripts/test installs it)";
  auto stamps = run({"reminder", "new", "Buy stamps", "--due", "2026-12-04", "--priority", "1", "--list", "t", "--json"});
  ASSERT_EQ(stamps.status, 0) << stamps.err;
  auto call = run({"reminder", "new", "Call the bank", "--due", "2026-12-05T10:00", "--notes", "about the card\nsoon"});
  ASSERT_EQ(call.status, 0) << call.err;
  ASSERT_EQ(run({"reminder", "done", json::parse(stamps.out)["calendarItemIdentifier"]}).status, 0);

  writeFile(config_.path() / "todoman.py", "path = \"" + root_.path().string() + "/*\"\ndate_format = \"%Y-%m-%d\"\n" +
                                               "time_format = \"%H:%M\"\ncache_path = \"" +
                                               (config_.path() / "todoman.sqlite").string() + "\"\n");
  auto todoman = shell("TZ=Europe/Berlin todoman -c " + quoted((config_.path() / "todoman.py").string()) +
                       " --porcelain list --status ANY 2>&1");
  ASSERT_EQ(todoman.status, 0) << todoman.out;
  std::map<std::string, json> read;
  for (const auto& todo : json::parse(todoman.out)) read[todo["summary"]] = todo;
  ASSERT_EQ(read.size(), 2u) << todoman.out;
  const json& done = read["Buy stamps"];
  EXPECT_EQ(done["completed"], true);
  EXPECT_EQ(done["percent"], 100);
  EXPECT_FALSE(done["completed_at"].is_null());
  EXPECT_EQ(done["priority"], 1);
  EXPECT_EQ(done["list"], "Tasks");
  EXPECT_EQ(done["due"], 1796338800);  // the day, 2026-12-04, from its local midnight
  const json& open = read["Call the bank"];
  EXPECT_EQ(open["completed"], false);
  EXPECT_EQ(open["due"], 1796461200);  // 2026-12-05 10:00 in Berlin
  EXPECT_EQ(open["description"], "about the card\nsoon");
}

// Open, overdue, undated, completed and cancelled to-dos, with and without priorities, in two lists.
class VespToDoViewTest : public VespWritingTest {
 protected:
  void SetUp() override {
    VespWritingTest::SetUp();
    writeFile(root_.path() / "w/displayname", "Work\n");
    toDo("t", "Overdue", "DUE;VALUE=DATE:20261101\r\nCREATED:20261001T080000Z");
    toDo("t", "Soon", "DUE:20261230T090000Z\r\nCREATED:20261002T080000Z");
    toDo("t", "Undated", "CREATED:20261003T080000Z");
    toDo("t", "Undated and older", "CREATED:20260901T080000Z");
    toDo("t", "Cancelled", "DUE;VALUE=DATE:20261115\r\nSTATUS:CANCELLED\r\nCREATED:20261004T080000Z");
    toDo("t", "Done", "STATUS:COMPLETED\r\nCOMPLETED:20261120T100000Z\r\nCREATED:20261005T080000Z");
    toDo("w", "Urgent", "PRIORITY:1\r\nDUE;VALUE=DATE:20261205\r\nCREATED:20261006T080000Z");
    toDo("w", "Also urgent", "PRIORITY:2\r\nDUE;VALUE=DATE:20261201\r\nCREATED:20261007T080000Z");
    toDo("w", "Low and overdue", "PRIORITY:9\r\nDUE;VALUE=DATE:20261010\r\nCREATED:20261008T080000Z");
    toDo("w", "Medium and undated", "PRIORITY:5\r\nCREATED:20261009T080000Z");
    toDo("w", "In process", "STATUS:IN-PROCESS\r\nDUE;VALUE=DATE:20261212\r\nCREATED:20261010T080000Z");
    toDo("w", "Done too",
         "PRIORITY:3\r\nSTATUS:COMPLETED\r\nCOMPLETED:20261121T100000Z\r\nCREATED:20261011T080000Z");
  }
  void toDo(const std::string& list, const std::string& title, const std::string& lines) {
    std::string uid = title;
    std::replace(uid.begin(), uid.end(), ' ', '-');
    writeFile(root_.path() / list / (uid + ".ics"),
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VTODO\r\nUID:" + uid +
                  "\r\nDTSTAMP:20261001T000000Z\r\nSUMMARY:" + title + "\r\n" + lines +
                  "\r\nEND:VTODO\r\nEND:VCALENDAR\r\n");
  }
  // The titles `vesp reminders` lists with `options`, in its order.
  std::vector<std::string> titles(std::vector<std::string> options) {
    options.insert(options.begin(), {"reminders", "--json"});
    auto listed = run(options);
    EXPECT_EQ(listed.status, 0) << listed.err;
    std::vector<std::string> found;
    for (const auto& reminder : json::parse(listed.out)) found.push_back(reminder["title"]);
    return found;
  }
};

TEST_F(VespToDoViewTest, ACancelledToDoIsListedOnlyWhenAskedForAndThenMarked) {
  EXPECT_THAT(titles({}), ::testing::Not(::testing::Contains("Cancelled")));
  EXPECT_THAT(titles({"--status", "completed"}), ::testing::UnorderedElementsAre("Done", "Done too"));
  auto cancelled = run({"reminders", "--status", "cancelled", "--json"});
  ASSERT_EQ(cancelled.status, 0) << cancelled.err;
  const json listed = json::parse(cancelled.out);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0]["title"], "Cancelled");
  EXPECT_EQ(listed[0]["isCancelled"], true);
  EXPECT_EQ(listed[0]["isCompleted"], false);
  auto human = run({"reminders", "--status", "any"});
  ASSERT_EQ(human.status, 0) << human.err;
  EXPECT_THAT(human.out, ::testing::HasSubstr("[-] Cancelled  due 2026-11-15  [Tasks]  cancelled\n"));
  EXPECT_THAT(human.out, ::testing::HasSubstr("[ ] Overdue  due 2026-11-01  [Tasks]\n"));
  EXPECT_THAT(human.out, ::testing::HasSubstr("[x] !!! Done too  [Work]\n"));
  EXPECT_THAT(human.out, ::testing::HasSubstr("[ ] ! Low and overdue  due 2026-10-10  [Work]\n"));
  EXPECT_EQ(titles({"--status", "any"}).size(), 12u);
  // Within a period, by due date as open ones are.
  EXPECT_THAT(titles({"--status", "cancelled", "--from", "2026-11-15", "--to", "2026-11-16"}),
              ::testing::ElementsAre("Cancelled"));
  EXPECT_THAT(titles({"--status", "cancelled", "--from", "2026-11-16"}), ::testing::IsEmpty());
  auto one = run({"reminder", "t/Cancelled.ics"});
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_THAT(one.out, ::testing::HasSubstr("  cancelled   yes\n"));
  auto open = run({"reminder", "t/Overdue.ics", "--json"});
  ASSERT_EQ(open.status, 0) << open.err;
  EXPECT_EQ(json::parse(open.out)["isCancelled"], false);
  EXPECT_EQ(run({"reminders", "--status", "dropped"}).status, 2);
}

TEST_F(VespToDoViewTest, WithoutAPeriodEveryOpenToDoIsListedAndAPeriodKeepsItsMeaning) {
  EXPECT_THAT(titles({}), ::testing::UnorderedElementsAre("Overdue", "Soon", "Undated", "Undated and older", "Urgent",
                                                          "Also urgent", "Low and overdue", "Medium and undated",
                                                          "In process"));
  // A period lists the open ones due in it and the ones completed in it.
  EXPECT_THAT(titles({"--from", "2026-11-01", "--to", "2026-11-21"}), ::testing::ElementsAre("Done", "Overdue"));
  EXPECT_THAT(titles({"--from", "2026-11-01", "--to", "2026-11-21", "--status", "open"}),
              ::testing::ElementsAre("Overdue"));
  EXPECT_THAT(titles({"--list", "w", "--status", "open"}),
              ::testing::ElementsAre("In process", "Low and overdue", "Medium and undated", "Also urgent", "Urgent"));
}

TEST_F(VespToDoViewTest, AToDosRepeatIsMappedAndShown) {
  toDo("t", "Water the plants", "DTSTART;VALUE=DATE:20261201\r\nDUE;VALUE=DATE:20261201\r\n"
                                "RRULE:FREQ=WEEKLY;INTERVAL=2;BYDAY=TU;COUNT=10");
  toDo("t", "Pay rent", "DUE;VALUE=DATE:20261201\r\nRRULE:FREQ=MONTHLY;BYMONTHDAY=1");
  auto one = run({"reminder", "t/Water-the-plants.ics", "--json"});
  ASSERT_EQ(one.status, 0) << one.err;
  const json rules = json::parse(one.out)["recurrenceRules"];
  ASSERT_TRUE(rules.is_array()) << one.out;
  ASSERT_EQ(rules.size(), 1u);
  EXPECT_EQ(rules[0]["frequency"], "weekly");
  EXPECT_EQ(rules[0]["interval"], 2);
  EXPECT_EQ(rules[0]["recurrenceEnd"]["occurrenceCount"], 10);
  auto shown = run({"reminder", "t/Water-the-plants.ics"});
  EXPECT_THAT(shown.out, ::testing::HasSubstr("  repeats     every 2 weeks\n"));
  auto listed = run({"reminders"});
  EXPECT_THAT(listed.out, ::testing::HasSubstr("[ ] Pay rent  due 2026-12-01, monthly  [Tasks]\n"));
  EXPECT_THAT(listed.out, ::testing::HasSubstr("[ ] Water the plants  due 2026-12-01, every 2 weeks  [Tasks]\n"));
  EXPECT_EQ(json::parse(run({"reminder", "t/Overdue.ics", "--json"}).out)["recurrenceRules"], nullptr);
}

TEST_F(VespToDoViewTest, TheToDoViewMarksStatusAndPriorityMostPressingLast) {
  auto any = run({"reminders", "--status", "any"});
  ASSERT_EQ(any.status, 0) << any.err;
  EXPECT_EQ(any.out,
            "[x] !!! Done too  [Work]\n"
            "[x] Done  [Tasks]\n"
            "[ ] Undated and older  [Tasks]\n"
            "[ ] Undated  [Tasks]\n"
            "[ ] Soon  due 2026-12-30 10:00  [Tasks]\n"
            "[ ] In process  due 2026-12-12  [Work]\n"
            "[-] Cancelled  due 2026-11-15  [Tasks]  cancelled\n"
            "[ ] Overdue  due 2026-11-01  [Tasks]\n"
            "[ ] ! Low and overdue  due 2026-10-10  [Work]\n"
            "[ ] !! Medium and undated  [Work]\n"
            "[ ] !!! Also urgent  due 2026-12-01  [Work]\n"
            "[ ] !!! Urgent  due 2026-12-05  [Work]\n");
}

TEST_F(VespToDoViewTest, ToDosAreFilteredByPriorityDueDateAndListTitle) {
  EXPECT_THAT(titles({"--priority", "high"}), ::testing::ElementsAre("Also urgent", "Urgent"));
  EXPECT_THAT(titles({"--priority", "2"}), ::testing::ElementsAre("Also urgent", "Urgent"));
  EXPECT_THAT(titles({"--priority", "medium"}), ::testing::ElementsAre("Medium and undated", "Also urgent", "Urgent"));
  EXPECT_THAT(titles({"--priority", "low", "--list", "WORK"}),
              ::testing::ElementsAre("Low and overdue", "Medium and undated", "Also urgent", "Urgent"));
  // Undated to-dos are due before no day.
  EXPECT_THAT(titles({"--due-before", "2026-12-02"}),
              ::testing::ElementsAre("Overdue", "Low and overdue", "Also urgent"));
  EXPECT_THAT(titles({"--due-before", "2026-12-02", "--list", "Tasks"}), ::testing::ElementsAre("Overdue"));
  EXPECT_THAT(titles({"--due-before", "2026-12-02", "--status", "any", "--priority", "9"}),
              ::testing::ElementsAre("Low and overdue", "Also urgent"));
  auto bad = run({"reminders", "--priority", "urgent"});
  EXPECT_EQ(bad.status, 2);
}

TEST_F(VespWritingTest, CalendarsAreChosenByTitleOrIdentifierAndLeftOut) {
  const char* start = "20261102T090000Z";
  writeFile(root_.path() / "c/displayname", "Work\n");
  writeFile(root_.path() / "b/displayname", "Birthdays\n");
  writeFile(root_.path() / "b/ada.ics", vdir::testing::simpleEvent("ada", "Ada", start, "20261102T100000Z"));
  writeFile(root_.path() / "k/displayname", "Caf\u00e9\n");
  writeFile(root_.path() / "k/coffee.ics", vdir::testing::simpleEvent("coffee", "Coffee", start, "20261102T100000Z"));
  auto titlesOf = [&](std::vector<std::string> options) {
    options.insert(options.end(), {"--from", "2026-11-02", "--to", "2026-11-03", "--json"});
    options.insert(options.begin(), "events");
    auto listed = run(options);
    EXPECT_EQ(listed.status, 0) << listed.err;
    std::multiset<std::string> found;
    for (const auto& event : json::parse(listed.out)) found.insert(event["title"].get<std::string>());
    return found;
  };
  EXPECT_EQ(titlesOf({"--calendar", "work"}), (std::multiset<std::string>{"Team"}));
  EXPECT_EQ(titlesOf({"--calendar", "CAFE", "--calendar", "b"}), (std::multiset<std::string>{"Ada", "Coffee"}));
  EXPECT_EQ(titlesOf({"--not-calendar", "Birthdays"}), (std::multiset<std::string>{"Coffee", "Team"}));
  EXPECT_EQ(titlesOf({"--calendar", "Work", "--not-calendar", "c"}), std::multiset<std::string>{});
  auto unknown = run({"events", "--calendar", "Holidays"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.err, "vesp: there is no calendar \"Holidays\"; `vesp calendars` lists them\n");
  // A new event goes to the calendar its title names.
  auto created = run({"new", "Party", "--start", "2026-12-03T15:00", "--calendar", "birthdays", "--dry-run"});
  ASSERT_EQ(created.status, 0) << created.err;
  EXPECT_THAT(created.out, ::testing::HasSubstr("--- would write b/"));

  writeFile(root_.path() / "w/displayname", "WORK\n");
  writeFile(root_.path() / "w/x.ics", vdir::testing::simpleEvent("x", "X", start, "20261102T100000Z"));
  auto ambiguous = run({"events", "--calendar", "Work"});
  EXPECT_EQ(ambiguous.status, 2);
  EXPECT_EQ(ambiguous.err, "vesp: \"Work\" is the name of 2 calendars (\"c\", \"w\"): give one's identifier; "
                           "`vesp calendars` lists them\n");
  EXPECT_EQ(run({"new", "Party", "--start", "2026-12-03T15:00", "--calendar", "work", "--dry-run"}).status, 2);
  EXPECT_EQ(titlesOf({"--calendar", "w"}), (std::multiset<std::string>{"X"}));
}

TEST_F(VespWritingTest, TheMonthIsDrawnAsAGridWithItsBusyDaysBeforeItsAgenda) {
  writeFile(root_.path() / "c/trip.ics",
            vdir::testing::simpleEvent("trip", "Trip", "20261112T150000Z", "20261114T110000Z"));
  auto month = run({"events", "--month", "--from", "2026-11-20"});
  ASSERT_EQ(month.status, 0) << month.err;
  EXPECT_EQ(month.out,
            "   November 2026\n"
            "Mo Tu We Th Fr Sa Su\n"
            "                   1\n"
            " 2* 3  4  5  6  7  8\n"
            " 9*10 11 12*13*14*15\n"
            "16*17 18 19 20 21 22\n"
            "23*24 25 26 27 28 29\n"
            "30*\n"
            "\n"
            "Mon 02 Nov 2026\n"
            "  09:00-10:00  Team  [c]\n"
            "\n"
            "Mon 09 Nov 2026\n"
            "  09:00-10:00  Team  [c]\n"
            "\n"
            "Thu 12 Nov 2026\n"
            "  from 16:00   Trip (day 1/3)  [c]\n"
            "\n"
            "Fri 13 Nov 2026\n"
            "  all day      Trip (day 2/3)  [c]\n"
            "\n"
            "Sat 14 Nov 2026\n"
            "  until 12:00  Trip (day 3/3)  [c]\n"
            "\n"
            "Mon 16 Nov 2026\n"
            "  09:00-10:00  Team  [c]\n"
            "\n"
            "Mon 23 Nov 2026\n"
            "  09:00-10:00  Team  [c]\n"
            "\n"
            "Mon 30 Nov 2026\n"
            "  09:00-10:00  Team  [c]\n");
  // The week and a number of days from --from.
  auto week = run({"events", "--week", "--from", "2026-11-12", "--json"});
  ASSERT_EQ(week.status, 0) << week.err;
  std::vector<std::string> starts;
  for (const auto& event : json::parse(week.out)) starts.push_back(event["startDate"]);
  EXPECT_THAT(starts, ::testing::ElementsAre("2026-11-09T08:00:00Z", "2026-11-12T15:00:00Z"));
  auto days = run({"events", "--days", "3", "--from", "2026-11-14", "--json"});
  ASSERT_EQ(days.status, 0) << days.err;
  EXPECT_EQ(json::parse(days.out).size(), 2u);  // the trip's last day and the Monday
  EXPECT_EQ(run({"events", "--month", "--to", "2026-12-01"}).status, 2);
}

TEST_F(VespWritingTest, WeeksBeginOnTheDayGivenByWeekStart) {
  writeFile(root_.path() / "c/trip.ics",
            vdir::testing::simpleEvent("trip", "Trip", "20261112T150000Z", "20261114T110000Z"));
  auto grid = run({"events", "--month", "--from", "2026-11-20", "--week-start", "sunday"});
  ASSERT_EQ(grid.status, 0) << grid.err;
  EXPECT_THAT(grid.out, ::testing::StartsWith("   November 2026\n"
                                              "Su Mo Tu We Th Fr Sa\n"
                                              " 1  2* 3  4  5  6  7\n"
                                              " 8  9*10 11 12*13*14*\n"
                                              "15 16*17 18 19 20 21\n"
                                              "22 23*24 25 26 27 28\n"
                                              "29 30*\n\n"));
  // The week that holds Sunday 15 November runs from it to Saturday 21: the Monday of the 16th,
  // not the one of the 9th.
  auto week = run({"--week-start", "su", "events", "--week", "--from", "2026-11-15", "--json"});
  ASSERT_EQ(week.status, 0) << week.err;
  std::vector<std::string> starts;
  for (const auto& event : json::parse(week.out)) starts.push_back(event["startDate"]);
  EXPECT_THAT(starts, ::testing::ElementsAre("2026-11-16T08:00:00Z"));
  auto unknown = run({"--week-start", "s", "events"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_THAT(unknown.err, ::testing::HasSubstr("--week-start: \"s\" is not a weekday"));
}

TEST_F(VespWritingTest, FormatWritesNamedFieldsOneLinePerOccurrence) {
  writeFile(root_.path() / "c/displayname", "Work\n");
  writeFile(root_.path() / "c/day.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VEVENT\r\nUID:day\r\n"
            "DTSTAMP:20261001T000000Z\r\nDTSTART;VALUE=DATE:20261103\r\nDTEND;VALUE=DATE:20261104\r\n"
            "SUMMARY:Holiday\r\nLOCATION:Two\\nlines\r\nSTATUS:TENTATIVE\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  auto formatted = run({"events", "--from", "2026-11-02", "--to", "2026-11-04", "--format",
                        "{start}|{end}|{start-date}|{start-time}|{end-time}|{all-day}|{title}|{location}|"
                        "{calendar}|{calendar-id}|{status}|{start-utc}|{{{identifier}}}|{uid}"});
  ASSERT_EQ(formatted.status, 0) << formatted.err;
  EXPECT_EQ(formatted.out,
            "2026-11-02 09:00|2026-11-02 10:00|2026-11-02|09:00|10:00|no|Team||Work|c|none|2026-11-02T08:00:00Z|"
            "{c/weekly.ics}|weekly\n"
            "2026-11-03|2026-11-04|2026-11-03|||yes|Holiday|Two\\x0Alines|Work|c|tentative|2026-11-02T23:00:00Z|"
            "{c/day.ics}|day\n");
  auto unknown = run({"events", "--format", "{when}"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_THAT(unknown.err, ::testing::HasSubstr("vesp: --format \"{when}\" {when} is not a field: the fields are "
                                                "all-day, calendar, calendar-id, end"));
  EXPECT_EQ(run({"events", "--format", "{title"}).status, 2);
  EXPECT_EQ(run({"events", "--format", "{title}", "--json"}).status, 2);
  auto search = run({"search", "holi", "--from", "2026-11-01", "--to", "2026-12-01", "--format", "{title}"});
  EXPECT_EQ(search.out, "Holiday\n");
}

TEST_F(VespWritingTest, SearchFindsTextInTitlesPlacesNotesAndAttendeesCaseAndAccentsAside) {
  writeFile(root_.path() / "c/cafe.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VEVENT\r\nUID:cafe\r\n"
            "DTSTAMP:20261001T000000Z\r\nDTSTART:20261110T150000Z\r\nDTEND:20261110T160000Z\r\n"
            "SUMMARY:Caf\u00e9 with Zo\u00eb\r\nLOCATION:Hauptstra\u00dfe 1\r\nDESCRIPTION:Bring the \ufb01les\r\n"
            "ATTENDEE;CN=\u00dcnal Demir:mailto:unal@example.org\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  auto found = [&](std::vector<std::string> options) {
    options.insert(options.begin(), "search");
    options.insert(options.end(), {"--from", "2026-11-01", "--to", "2026-12-01", "--json"});
    auto listed = run(options);
    EXPECT_EQ(listed.status, 0) << listed.err;
    std::vector<std::string> titles;
    for (const auto& event : json::parse(listed.out)) titles.push_back(event["title"]);
    return titles;
  };
  const std::vector<std::string> cafe{"Caf\u00e9 with Zo\u00eb"};
  for (const char* text : {"cafe", "ZOE", "CAF\u00c9", "strasse", "files", "unal", "EXAMPLE.ORG", "demir"})
    EXPECT_EQ(found({text}), cafe) << text;
  EXPECT_THAT(found({"team"}), ::testing::ElementsAre("Team", "Team", "Team", "Team", "Team"));
  EXPECT_THAT(found({"tea"}), ::testing::ElementsAre("Team", "Team", "Team", "Team", "Team"));
  EXPECT_THAT(found({"dentist"}), ::testing::IsEmpty());
  EXPECT_THAT(found({"team", "--not-calendar", "c"}), ::testing::IsEmpty());
  auto human = run({"search", "cafe", "--from", "2026-11-10", "--to", "2026-11-11"});
  EXPECT_THAT(human.out, ::testing::HasSubstr("Caf\u00e9 with Zo\u00eb"));
  EXPECT_THAT(human.out, ::testing::Not(::testing::HasSubstr("Team")));
  EXPECT_EQ(run({"search", ""}).status, 2);
}

TEST_F(VespToDoViewTest, TodomanListsTheSameToDosInTheSameOrder) {
  if (!installed("todoman", "todoman")) GTEST_SKIP() << "needs the Debian package todoman (scripts/test installs it)";
  writeFile(config_.path() / "todoman.py", "path = \"" + root_.path().string() + "/*\"\ndate_format = \"%Y-%m-%d\"\n" +
                                               "time_format = \"%H:%M\"\ncache_path = \"" +
                                               (config_.path() / "todoman.sqlite").string() + "\"\n");
  auto todoman = [&](const std::string& options) {
    auto listed = shell("TZ=Europe/Berlin todoman -c " + quoted((config_.path() / "todoman.py").string()) +
                        " --porcelain list " + options + " 2>&1");
    EXPECT_EQ(listed.status, 0) << listed.out;
    std::vector<std::string> found;
    for (const auto& todo : json::parse(listed.out)) found.push_back(todo["summary"]);
    return found;
  };
  const std::vector<std::string> open = titles({});
  EXPECT_EQ(open.size(), 9u);
  EXPECT_EQ(open, todoman(""));
  const std::vector<std::string> any = titles({"--status", "any"});
  EXPECT_EQ(any.size(), 12u);
  EXPECT_EQ(any, todoman("--status ANY"));
  EXPECT_EQ(titles({"--list", "w"}), todoman("Work"));
}

TEST_F(VespProgramTest, EventsAsJsonUseTheDataModelsFieldNamesAndFindTheirOccurrenceAgain) {
  auto run = vesp({"--store", store("series"), "--yes", "--json", "events", "--from", "2026-03-28", "--to", "2026-03-29"});
  ASSERT_EQ(run.status, 0) << run.err;
  auto events = json::parse(run.out);
  ASSERT_TRUE(events.is_array());
  json moved;
  for (const auto& event : events)
    if (event["isDetached"] == true) moved = event;
  ASSERT_FALSE(moved.is_null());
  EXPECT_EQ(moved["title"], "Jour fixe (moved in)");
  EXPECT_EQ(moved["startDate"], "2026-03-28T10:00:00Z");
  EXPECT_EQ(moved["originalOccurrenceDate"], "2026-05-07T12:00:00Z");
  EXPECT_EQ(moved["calendarItemExternalIdentifier"], "moved");
  EXPECT_EQ(moved["eventIdentifier"], "cal/moved.ics");
  EXPECT_EQ(moved["eventInstanceIdentifier"]["identifier"], "withOccurrenceDate");
  EXPECT_EQ(moved["calendar"]["calendarIdentifier"], "cal");
  auto again = vesp({"--store", store("series"), "--yes", "--json", "event", moved["eventInstanceIdentifier"].dump()});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(json::parse(again.out), moved);
  auto human = vesp({"--store", store("series"), "--yes", "event", moved["eventInstanceIdentifier"].dump()});
  EXPECT_THAT(human.out, ::testing::HasSubstr("Jour fixe (moved in)"));
  EXPECT_THAT(human.out, ::testing::HasSubstr("moved from"));
}

// Every --json document is compact, and indented with --pretty: the same document either way, each
// laid out exactly as the JSON library lays it out (members in order of their names).
TEST_F(VespProgramTest, JsonIsCompactUnlessPrettyAndTheSameDocumentEitherWay) {
  const std::vector<std::vector<std::string>> commands = {
      {"--store", store("mapping"), "calendars"},
      {"--store", store("mapping"), "reminder-lists"},
      {"--store", store("mapping"), "events", "--from", "2026-01-01", "--to", "2027-01-01"},
      {"--store", store("series"), "events", "--from", "2026-03-27", "--to", "2026-03-29", "--refs"},
      {"--store", store("series"), "search", "jour", "--from", "2026-01-01", "--to", "2027-01-01"},
      {"--store", store("mapping"), "reminders", "--status", "any"},
      {"--store", store("mapping"), "reminder", "tasks/due-date.ics"},
      {"--store", store("broken"), "doctor"},
      {"--store", store("mapping"), "access"},
  };
  for (auto arguments : commands) {
    const std::string what = arguments[2];
    arguments.insert(arguments.begin(), {"--yes", "--json"});
    auto compact = vesp(arguments);
    arguments.insert(arguments.begin(), "--pretty");
    auto pretty = vesp(arguments);
    ASSERT_EQ(compact.status, 0) << what << ": " << compact.err;
    ASSERT_EQ(pretty.status, 0) << what << ": " << pretty.err;
    const json document = json::parse(compact.out);
    EXPECT_FALSE(document.empty()) << what;
    EXPECT_EQ(compact.out, document.dump() + "\n") << what;
    EXPECT_EQ(pretty.out, document.dump(2) + "\n") << what;
    EXPECT_EQ(compact.out.find('\n'), compact.out.size() - 1) << what;
  }
  // --pretty indents --json's document, and is refused without it.
  auto alone = vesp({"--store", store("mapping"), "--yes", "--pretty", "calendars"});
  EXPECT_EQ(alone.status, 2);
  EXPECT_TRUE(alone.out.empty());
  EXPECT_THAT(alone.err, ::testing::HasSubstr("--pretty requires --json"));
  // One occurrence, as `event` prints it, is the one the list printed, references aside.
  auto listed = json::parse(vesp({"--store", store("series"), "--yes", "--json", "events", "--from", "2026-03-28",
                                  "--to", "2026-03-29", "--refs"}).out);
  ASSERT_FALSE(listed.empty());
  ASSERT_TRUE(listed[0].contains("reference")) << listed[0].dump();
  const std::string reference = listed[0]["reference"];
  auto one = vesp({"--store", store("series"), "--yes", "--json", "event", reference});
  ASSERT_EQ(one.status, 0) << one.err;
  listed[0].erase("reference");
  EXPECT_EQ(json::parse(one.out), listed[0]);
}

TEST_F(VespProgramTest, TheAgendaIsGroupedByLocalDay) {
  auto run = vesp({"--store", store("series"), "--yes", "events", "--from", "2026-03-27", "--to", "2026-03-29"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_THAT(run.out, ::testing::HasSubstr("Fri 27 Mar 2026\n"));
  EXPECT_THAT(run.out, ::testing::HasSubstr("Sat 28 Mar 2026\n"));
  EXPECT_THAT(run.out, ::testing::HasSubstr("  09:00-09:30  Berlin breakfast  [cal]\n"));
  EXPECT_THAT(run.out, ::testing::HasSubstr("  11:00-12:00  Jour fixe (moved in)  [cal]\n"));
  EXPECT_EQ(run.out.find('\x1b'), std::string::npos);  // no colour without a terminal
}

TEST_F(VespProgramTest, RemindersListsAndOneReminder) {
  auto lists = vesp({"--store", store("mapping"), "--yes", "--json", "reminder-lists"});
  ASSERT_EQ(lists.status, 0) << lists.err;
  EXPECT_EQ(json::parse(lists.out)[0]["title"], "Tasks");
  auto run = vesp({"--store", store("mapping"), "--yes", "--json", "reminders", "--from", "2026-03-01", "--to", "2026-03-12"});
  ASSERT_EQ(run.status, 0) << run.err;
  std::set<std::string> titles;
  for (const auto& reminder : json::parse(run.out)) titles.insert(reminder["title"]);
  EXPECT_THAT(titles, ::testing::ElementsAre("Buy milk", "Call back", "File taxes"));
  auto one = vesp({"--store", store("mapping"), "--yes", "--json", "reminder", "tasks/due-date.ics"});
  ASSERT_EQ(one.status, 0) << one.err;
  auto milk = json::parse(one.out);
  EXPECT_EQ(milk["dueDateComponents"], json({{"year", 2026}, {"month", 3}, {"day", 11}}));
  EXPECT_EQ(milk["priority"], "high");
}

TEST_F(VespProgramTest, DoctorListsEachProblemOfTheBrokenCorpus) {
  auto run = vesp({"--store", store("broken"), "--json", "doctor"});
  ASSERT_EQ(run.status, 0) << run.err;
  auto report = json::parse(run.out);
  std::set<std::string> paths;
  for (const auto& problem : report["problems"]) paths.insert(problem["path"]);
  for (const char* file : {"bad-date.ics", "bad-rrule.ics", "bad-weekday.ics", "binary.ics", "empty.ics",
                           "huge-line.ics", "missing-end.ics", "no-dtstart.ics", "not-calendar.ics", "truncated.ics",
                           "unknown-zone.ics"})
    EXPECT_TRUE(paths.count(std::string("cal/") + file)) << file;
  auto human = vesp({"--store", store("broken"), "doctor"});
  EXPECT_THAT(human.out, ::testing::HasSubstr("cal/no-dtstart.ics: skipped: VEVENT \"no-dtstart\" has no DTSTART"));
}

TEST_F(VespProgramTest, ControlCharactersFromFilesNeverReachTheTerminal) {
  TemporaryDirectory root;
  writeFile(root.path() / "c/evil.ics", vdir::testing::simpleEvent("evil", "Title\\n\x1b]0;owned\x07 end",
                                                                   "20260310T090000Z", "20260310T100000Z"));
  auto run = vesp({"--store", root.path().string(), "--yes", "events", "--from", "2026-03-10", "--to", "2026-03-11"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out.find('\x1b'), std::string::npos);
  EXPECT_EQ(run.out.find('\x07'), std::string::npos);
  EXPECT_THAT(run.out, ::testing::HasSubstr("\\x1B]0;owned\\x07 end"));
}

// Today's local date `days` later, in `format` (strftime).
std::string localDayFromToday(int days, const char* format) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  local.tm_mday += days;
  local.tm_hour = 12;
  local.tm_isdst = -1;
  const std::time_t then = std::mktime(&local);
  ::localtime_r(&then, &local);
  char text[64];
  std::strftime(text, sizeof text, format, &local);
  return text;
}

TEST_F(VespProgramTest, DatesAreReadAsPeopleTypeThem) {
  TemporaryDirectory root;
  const std::string tomorrow = localDayFromToday(1, "%Y%m%d");
  writeFile(root.path() / "c/a.ics",
            vdir::testing::simpleEvent("a", "Tomorrow", tomorrow + "T110000Z", tomorrow + "T120000Z"));
  writeFile(root.path() / "t/x.ics", "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VTODO\r\n"
                                     "UID:x\r\nSUMMARY:To-do\r\nEND:VTODO\r\nEND:VCALENDAR\r\n");
  const std::vector<std::string> store{"--store", root.path().string(), "--yes"};
  auto with = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), store.begin(), store.end());
    return vesp(arguments);
  };
  auto typed = with({"--json", "events", "--from", "Tomorrow", "--to", "+3d"});
  ASSERT_EQ(typed.status, 0) << typed.err;
  EXPECT_EQ(json::parse(typed.out).size(), 1u);
  auto iso = with({"--json", "events", "--from", localDayFromToday(1, "%Y-%m-%d"), "--to",
                   localDayFromToday(3, "%Y-%m-%d")});
  EXPECT_EQ(typed.out, iso.out);

  auto event = with({"new", "Dentist", "--start", "tomorrow 14:00", "--duration", "45m", "--calendar", "c",
                     "--alarm", "tomorrow 08:00Z", "--dry-run"});
  ASSERT_EQ(event.status, 0) << event.err;
  EXPECT_THAT(event.out, ::testing::HasSubstr("DTSTART;TZID=Europe/Berlin:" + tomorrow + "T140000\r\n"));
  EXPECT_THAT(event.out, ::testing::HasSubstr("TRIGGER;VALUE=DATE-TIME:" + tomorrow + "T080000Z\r\n"));
  auto todo = with({"reminder", "new", "Taxes", "--due", "+2d", "--list", "t", "--dry-run"});
  ASSERT_EQ(todo.status, 0) << todo.err;
  EXPECT_THAT(todo.out, ::testing::HasSubstr("DUE;VALUE=DATE:" + localDayFromToday(2, "%Y%m%d") + "\r\n"));

  auto ambiguous = with({"events", "--from", "12/01/2026"});
  EXPECT_EQ(ambiguous.status, 2);
  EXPECT_EQ(ambiguous.err, "vesp: --from \"12/01/2026\" is ambiguous: day and month could be either way round; "
                           "write the day as YYYY-MM-DD\n");
  auto unknown = with({"reminder", "new", "Taxes", "--due", "someday", "--list", "t"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.err, "vesp: --due \"someday\" is not a date: `vesp help dates` lists the forms a date may take\n");
  auto help = vesp({"help", "dates"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, ::testing::HasSubstr("next friday, last friday"));
  EXPECT_THAT(vesp({"help"}).out, ::testing::HasSubstr("`vesp help dates` lists every form."));
}

// `vesp watch` running in the background: its lines as they come, until stopped with SIGTERM.
class BackgroundWatch {
 public:
  // `command` runs vesp; `scratch` is a directory for its process identifier and standard error.
  BackgroundWatch(const std::string& command, const fs::path& scratch)
      : pidFile_(scratch / "watch.pid"), errors_(scratch / "watch-stderr.txt") {
    pipe_ = ::popen(("echo $$ > " + quoted(pidFile_.string()) + "; exec env " + command + " < /dev/null 2> " +
                     quoted(errors_.string()))
                        .c_str(),
                    "r");
    reader_ = std::thread([this] {
      char line[4096];
      while (pipe_ && std::fgets(line, sizeof line, pipe_)) {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
        arrived_.notify_all();
      }
    });
  }
  ~BackgroundWatch() { stop(); }

  // Whether the watch says it is watching, within ten seconds.
  bool started() {
    for (int i = 0; i < 100; ++i) {
      if (errors().find("Watching") != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
  std::string errors() const { return fs::exists(errors_) ? vdir::testing::readFile(errors_) : ""; }
  // The lines so far once none came for `quiet` (waiting ten seconds at most), without their times.
  std::vector<std::string> linesAfterQuiet(std::chrono::milliseconds quiet) {
    std::unique_lock lock(mutex_);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (std::size_t seen = lines_.size(); std::chrono::steady_clock::now() < end; seen = lines_.size())
      if (!arrived_.wait_for(lock, quiet, [&] { return lines_.size() > seen; })) break;
    std::vector<std::string> changes;
    for (const auto& line : lines_) changes.push_back(line.substr(line.find("  ") + 2));
    return changes;
  }
  // Stops the watch; its exit status.
  int stop() {
    if (!pipe_) return status_;
    // The shell writes the identifier before it becomes vesp: wait for it rather than miss it.
    for (int i = 0; i < 100 && vdir::testing::readFile(pidFile_).find('\n') == std::string::npos; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::string pid = vdir::testing::readFile(pidFile_);
    if (pid.find('\n') != std::string::npos) ::kill(std::stoi(pid), SIGTERM);
    reader_.join();
    const int status = ::pclose(pipe_);
    pipe_ = nullptr;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return status_;
  }

 private:
  fs::path pidFile_, errors_;
  FILE* pipe_ = nullptr;
  int status_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> lines_;
};

TEST_F(VespProgramTest, WatchFollowsTheStoreRootMovedAsideAndReplaced) {
  TemporaryDirectory parent;
  const fs::path root = parent.path() / "store", moved = parent.path() / "store.old", copy = parent.path() / "copy";
  writeFile(root / "c/a.ics", vdir::testing::simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  fs::copy(root, copy, fs::copy_options::recursive);
  ASSERT_EQ(vesp({"--store", root.string(), "--yes", "access", "--request"}).status, 0);
  BackgroundWatch watch(vespCommand({"--store", root.string(), "watch"}), config_.path());
  ASSERT_TRUE(watch.started());

  fs::rename(root, moved);
  fs::copy(copy, root, fs::copy_options::recursive);
  const auto before = watch.linesAfterQuiet(std::chrono::milliseconds(1500));
  writeFile(moved / "c/a.ics", vdir::testing::simpleEvent("a", "Old", "20260310T090000Z", "20260310T100000Z"));
  EXPECT_EQ(watch.linesAfterQuiet(std::chrono::milliseconds(1000)), before);
  writeFile(root / "c/a.ics", vdir::testing::simpleEvent("a", "New", "20260310T090000Z", "20260310T100000Z"));
  auto after = before;
  after.push_back("events changed\n");
  EXPECT_EQ(watch.linesAfterQuiet(std::chrono::milliseconds(1000)), after);
  EXPECT_EQ(watch.stop(), 0);
}

TEST_F(VespProgramTest, WatchGrantsBothKindsAndSaysWhichKindChanged) {
  TemporaryDirectory root;
  auto todo = [](const std::string& summary) {
    return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VTODO\r\nUID:x\r\nSUMMARY:" + summary +
           "\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";
  };
  writeFile(root.path() / "c/a.ics", vdir::testing::simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  writeFile(root.path() / "t/x.ics", todo("Before"));
  BackgroundWatch watch(vespCommand({"--store", root.path().string(), "--yes", "watch"}), config_.path());
  ASSERT_TRUE(watch.started());

  writeFile(root.path() / "t/x.ics", todo("After"));
  EXPECT_THAT(watch.linesAfterQuiet(std::chrono::milliseconds(1000)), ::testing::ElementsAre("reminders changed\n"));
  writeFile(root.path() / "c/a.ics", vdir::testing::simpleEvent("a", "B", "20260310T090000Z", "20260310T100000Z"));
  EXPECT_THAT(watch.linesAfterQuiet(std::chrono::milliseconds(1000)),
              ::testing::ElementsAre("reminders changed\n", "events changed\n"));
  EXPECT_EQ(watch.stop(), 0);
  auto access = json::parse(vesp({"--store", root.path().string(), "--json", "access"}).out);
  EXPECT_EQ(access, (json{{"events", "authorised"}, {"reminders", "authorised"}}));
}

TEST_F(VespProgramTest, WatchWithOneKindGrantedReportsThatKindAndSaysSo) {
  TemporaryDirectory root;
  const std::string todo = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VTODO\r\n"
                           "UID:x\r\nSUMMARY:To-do\r\nEND:VTODO\r\nEND:VCALENDAR\r\n";
  writeFile(root.path() / "c/a.ics", vdir::testing::simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  ASSERT_EQ(vesp({"--store", root.path().string(), "--yes", "access", "events", "--request"}).status, 0);
  // Without a terminal and without --yes, reminders stay undecided.
  BackgroundWatch watch(vespCommand({"--store", root.path().string(), "watch"}), config_.path());
  ASSERT_TRUE(watch.started());
  EXPECT_THAT(watch.errors(),
              ::testing::HasSubstr("vesp: watching events only: access to your reminders is not granted"));

  writeFile(root.path() / "t/x.ics", todo);
  EXPECT_THAT(watch.linesAfterQuiet(std::chrono::milliseconds(1000)), ::testing::IsEmpty());
  writeFile(root.path() / "c/a.ics", vdir::testing::simpleEvent("a", "B", "20260310T090000Z", "20260310T100000Z"));
  EXPECT_THAT(watch.linesAfterQuiet(std::chrono::milliseconds(1000)), ::testing::ElementsAre("events changed\n"));
  EXPECT_EQ(watch.stop(), 0);
}

TEST_F(VespProgramTest, WatchPrintsALinePerStoreChange) {
  TemporaryDirectory root;
  writeFile(root.path() / "c/a.ics", vdir::testing::simpleEvent("a", "A", "20260310T090000Z", "20260310T100000Z"));
  ASSERT_EQ(vesp({"--store", root.path().string(), "--yes", "access", "--request"}).status, 0);
  std::thread writer([&] {
    // Written repeatedly until the watcher, started by then, has seen a change.
    for (int i = 0; i < 50 && !fs::exists(config_.path() / "done"); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      writeFile(root.path() / "c/a.ics",
                vdir::testing::simpleEvent("a", "A" + std::to_string(i), "20260310T090000Z", "20260310T100000Z"));
    }
  });
  auto run = vesp({"--store", root.path().string(), "--json", "watch", "--count", "1"});
  writeFile(config_.path() / "done", "");
  writer.join();
  ASSERT_EQ(run.status, 0) << run.err;
  auto line = json::parse(run.out);
  EXPECT_TRUE(line["changed"] == "events" || line["changed"] == "reminders");
}

// Compares vesp's occurrences with the independent expansion on windows of a generated store.
void expectAgreement(VespProgramTest& test, const std::function<ProgramRun(const std::vector<std::string>&)>& vesp,
                     const fs::path& root) {
  testing::IndependentExpansion independent(root.string());
  struct Window {
    const char* from;
    const char* to;
  };
  for (Window window : {Window{"2026-03-10", "2026-03-11"}, Window{"2026-03-01", "2026-04-01"},
                        Window{"2026-01-01", "2027-01-01"}}) {
    auto run = vesp({"--store", root.string(), "--yes", "--json", "events", "--from", window.from, "--to", window.to});
    ASSERT_EQ(run.status, 0) << run.err;
    testing::Occurrences seen;
    for (const auto& event : json::parse(run.out)) {
      std::tm fields{};
      strptime(event["startDate"].get<std::string>().c_str(), "%Y-%m-%dT%H:%M:%SZ", &fields);
      seen.emplace(event["eventIdentifier"].get<std::string>(), static_cast<long long>(timegm(&fields)));
    }
    std::tm from{}, to{};
    strptime(window.from, "%Y-%m-%d", &from);
    strptime(window.to, "%Y-%m-%d", &to);
    from.tm_isdst = to.tm_isdst = -1;
    auto expected = independent.occurrences(std::mktime(&from), std::mktime(&to));
    EXPECT_EQ(seen.size(), expected.size()) << window.from << " to " << window.to;
    std::vector<std::pair<std::string, long long>> missing, extra;
    std::set_difference(expected.begin(), expected.end(), seen.begin(), seen.end(), std::back_inserter(missing));
    std::set_difference(seen.begin(), seen.end(), expected.begin(), expected.end(), std::back_inserter(extra));
    for (std::size_t i = 0; i < missing.size() && i < 10; ++i)
      ADD_FAILURE() << "vesp misses " << missing[i].first << " at " << missing[i].second;
    for (std::size_t i = 0; i < extra.size() && i < 10; ++i)
      ADD_FAILURE() << "vesp adds " << extra[i].first << " at " << extra[i].second;
    EXPECT_GT(expected.size(), 0u);
  }
  (void)test;
}

// Generates a store of `events` events (and a tenth as many to-dos) and compares.
void expectAgreementOnAGeneratedStore(VespProgramTest& test,
                                      const std::function<ProgramRun(const std::vector<std::string>&)>& vesp,
                                      int events, int seed) {
  TemporaryDirectory generated;
  fs::path root = generated.path() / "store";
  ASSERT_EQ(std::system(("python3 " + quoted(VESP_GEN_VDIR) + " --root " + quoted(root.string()) + " --events " +
                         std::to_string(events) + " --todos " + std::to_string(events / 10) + " --seed " +
                         std::to_string(seed) + " > /dev/null").c_str()),
            0);
  expectAgreement(test, vesp, root);
}

TEST_F(VespProgramTest, OccurrencesOfAGenerated1000EventStoreAgreeWithAnIndependentExpansion) {
  expectAgreementOnAGeneratedStore(*this, [&](const auto& arguments) { return vesp(arguments); }, 1000, 3);
}

TEST_F(VespProgramTest, OccurrencesOfAGenerated10000EventStoreAgreeWithAnIndependentExpansion) {
  expectAgreementOnAGeneratedStore(*this, [&](const auto& arguments) { return vesp(arguments); }, 10000, 4);
}

// The program leaves its store's items to the process's exit rather than freeing them, but closes
// the store as always: the cache and the expanded periods are written, and the next run, over
// them, answers the same.
TEST_F(VespProgramTest, TheStoreIsClosedAtExitWithItsCacheAndPeriodsWritten) {
  TemporaryDirectory root, cache;
  writeFile(root.path() / "c/standup.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\nBEGIN:VEVENT\r\nUID:standup\r\n"
            "DTSTAMP:20261001T000000Z\r\nDTSTART:20261102T090000Z\r\nDURATION:PT15M\r\n"
            "RRULE:FREQ=DAILY\r\nSUMMARY:Standup\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  // The cache keeps only files older than a margin (a file changed in the same instant as it was
  // looked at could change again unseen): 50 ms with nanosecond times, 2 s with whole seconds.
  struct stat written {};
  ASSERT_EQ(::stat((root.path() / "c/standup.ics").c_str(), &written), 0);
  std::this_thread::sleep_for(written.st_ctim.tv_nsec != 0 ? std::chrono::milliseconds(200)
                                                           : std::chrono::milliseconds(2200));
  const std::vector<std::string> query = {"--store", root.path().string(), "--yes", "events",
                                          "--from",  "2026-12-01",         "--to",  "2026-12-08"};
  // Runs that are each asked for access (a new access file) and end quickly: the library answered
  // on its own thread, which the program's end raced and about one run in ten lost its periods.
  for (int run = 0; run < 50; ++run) {
    TemporaryDirectory other;
    auto quick = vesp(query, "XDG_CACHE_HOME=" + quoted(other.path().string()) +
                                 " VESP_ACCESS_FILE=" + quoted((other.path() / "access.json").string()));
    ASSERT_EQ(quick.status, 0) << quick.err;
    std::set<std::string> kinds;
    for (const auto& entry : fs::recursive_directory_iterator(other.path()))
      if (entry.is_regular_file() && entry.file_size() > 0) kinds.insert(entry.path().extension().string());
    ASSERT_EQ(kinds, (std::set<std::string>{".cache", ".expansions", ".json"})) << "run " << run;
  }
  const std::string environment = "XDG_CACHE_HOME=" + quoted(cache.path().string());
  auto first = vesp(query, environment);
  ASSERT_EQ(first.status, 0) << first.err;
  std::size_t standups = 0;
  for (auto at = first.out.find("Standup"); at != std::string::npos; at = first.out.find("Standup", at + 1)) ++standups;
  EXPECT_EQ(standups, 7u);
  std::map<std::string, std::uintmax_t> sizes;
  for (const auto& entry : fs::recursive_directory_iterator(cache.path()))
    if (entry.is_regular_file()) sizes[entry.path().extension().string()] = entry.file_size();
  EXPECT_GT(sizes[".cache"], 0u);
  EXPECT_GT(sizes[".expansions"], 0u);
  auto second = vesp(query, environment);
  ASSERT_EQ(second.status, 0) << second.err;
  EXPECT_EQ(second.out, first.out);
}

// Each run opens the store cold (an empty cache directory), so every run's parse threads resolve
// the zone aliases through libical at once: its table of built-in zones grew under readers on
// other threads and crashed about one open in thirty, or answered with zones lost.
TEST_F(VespProgramTest, ColdOpensOfAStoreOfZoneAliasesAlwaysGiveTheSameAnswer) {
  TemporaryDirectory root;
  const auto aliases = vdir::testing::zoneAliases(181);
  ASSERT_GE(aliases.size(), 40u) << "the system's zone data has too few aliases to load";
  vdir::testing::writeZoneAliasStore(root.path(), aliases);
  const std::vector<std::string> query = {"--store", root.path().string(), "--yes", "--json", "events",
                                          "--from",  "2026-01-01",         "--to",  "2026-03-01"};
  std::string first;
  for (int run = 0; run < 24; ++run) {
    TemporaryDirectory cache;
    auto result = vesp(query, "XDG_CACHE_HOME=" + quoted(cache.path().string()));
    ASSERT_EQ(result.status, 0) << "run " << run << ": " << result.err;
    if (run == 0) {
      first = result.out;
      // Eight Mondays from 5 January to 23 February, less the excluded 12 January, per zone.
      EXPECT_EQ(json::parse(first).size(), aliases.size() * 7);
      EXPECT_THAT(first, ::testing::Not(::testing::HasSubstr("unknown time zone")));
    } else {
      ASSERT_EQ(result.out, first) << "run " << run << " answered differently";
    }
  }
}

}  // namespace
}  // namespace vesp::tool
