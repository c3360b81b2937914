// The vesp program's configuration file, as a user writes it: every setting read and applied, each
// option winning over its line, mistakes reported with their line, and `vesp config init`.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tools/vesp/VespProgramFixture.h"

namespace vesp::tool {
namespace {

using namespace vesp::tool::fixture;
using ::testing::HasSubstr;
using ::testing::Not;

// The writing store, with a "Birthdays" calendar (b) holding one event, and a reminder list
// "Errands" (a-list) that comes before "t" ("Tasks") as the first writable list.
class VespConfigurationTest : public VespWritingTest {
 protected:
  void SetUp() override {
    VespWritingTest::SetUp();
    writeFile(root_.path() / "b/displayname", "Birthdays\n");
    writeFile(root_.path() / "b/ada.ics",
              vdir::testing::simpleEvent("ada", "Ada", "20261102T120000Z", "20261102T130000Z"));
    writeFile(root_.path() / "a-list/displayname", "Errands\n");
    writeFile(root_.path() / "a-list/milk.ics",
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VTODO\r\nUID:milk\r\n"
              "DTSTAMP:20261001T000000Z\r\nSUMMARY:Milk\r\nEND:VTODO\r\nEND:VCALENDAR\r\n");
    // "t" holds a to-do, so that it is a reminder list and not an empty calendar.
    writeFile(root_.path() / "t/stamps.ics",
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VTODO\r\nUID:stamps\r\n"
              "DTSTAMP:20261001T000000Z\r\nSUMMARY:Stamps\r\nEND:VTODO\r\nEND:VCALENDAR\r\n");
  }

  // vesp with --yes and the configuration file, no --store and no $VESP_STORE.
  ProgramRun configured(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "--yes");
    return vesp(arguments, "VESP_STORE=");
  }

  // The titles of the occurrences `arguments` lists as JSON.
  std::vector<std::string> titles(std::vector<std::string> arguments) {
    arguments.push_back("--json");
    auto listed = configured(arguments);
    EXPECT_EQ(listed.status, 0) << listed.err;
    std::vector<std::string> found;
    for (const auto& event : json::parse(listed.out.empty() ? "[]" : listed.out)) found.push_back(event["title"]);
    return found;
  }
};

TEST_F(VespConfigurationTest, EverySettingIsReadAndAppliedAndEachOptionWinsOverItsLine) {
  writeFile(settingsFile(), "# mine\n"
                            "store = " + root_.path().string() + "\n"
                            "timezone = America/New_York\n"
                            "\n"
                            "default-calendar = Birthdays\n"
                            "default-list = Tasks\r\n"
                            "  hidden-calendars =   Birthdays  \n"
                            "days = 3\n"
                            "colour = always\n"
                            "week-start = sunday\n");
  auto shown = configured({"config", "--json"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  const json settings = json::parse(shown.out)["settings"];
  int line = 2;
  for (const char* key : {"store", "timezone", "", "default-calendar", "default-list", "hidden-calendars", "days",
                          "colour", "week-start"}) {
    if (*key) {
      EXPECT_EQ(settings[key]["from"], "line " + std::to_string(line) + " of " + settingsFile().string()) << key;
    }
    ++line;
  }
  EXPECT_EQ(settings["hidden-calendars"]["value"], json::array({"Birthdays"}));
  EXPECT_EQ(settings["days"]["value"], 3);
  EXPECT_EQ(settings["default-list"]["value"], "Tasks");

  // store: the calendars of the file's store; --store wins, and so does $VESP_STORE.
  EXPECT_THAT(configured({"calendars"}).out, HasSubstr("Birthdays"));
  TemporaryDirectory other;
  EXPECT_EQ(configured({"--store", other.path().string(), "--json", "calendars"}).out, "[]\n");
  EXPECT_EQ(vesp({"--yes", "--json", "calendars"}, "VESP_STORE=" + quoted(other.path().string())).out, "[]\n");

  // timezone: Team at 09:00 in Berlin is 03:00 in New York; --timezone wins.
  const std::vector<std::string> team{"events", "--from", "2026-11-02", "--days", "1", "--format", "{start} {title}"};
  EXPECT_EQ(configured(team).out, "2026-11-02 03:00 Team\n");
  auto berlin = team;
  berlin.insert(berlin.begin(), {"--timezone", "Europe/Berlin"});
  EXPECT_EQ(configured(berlin).out, "2026-11-02 09:00 Team\n");

  // hidden-calendars: Birthdays is left out unless --calendar names it or --hidden-calendars empties the list.
  EXPECT_EQ(titles({"events", "--from", "2026-11-02", "--days", "1"}), std::vector<std::string>{"Team"});
  EXPECT_EQ(titles({"events", "--from", "2026-11-02", "--days", "1", "--calendar", "Birthdays"}),
            std::vector<std::string>{"Ada"});
  EXPECT_EQ(titles({"--hidden-calendars", "", "events", "--from", "2026-11-02", "--days", "1"}),
            (std::vector<std::string>{"Team", "Ada"}));
  EXPECT_EQ(titles({"search", "Ada"}), std::vector<std::string>{});
  EXPECT_EQ(titles({"search", "Ada", "--calendar", "Birthdays"}), std::vector<std::string>{"Ada"});

  // days: three days from Friday 30 October do not reach Monday; --days 7 does.
  EXPECT_EQ(titles({"events", "--from", "2026-10-30"}), std::vector<std::string>{});
  EXPECT_EQ(titles({"events", "--from", "2026-10-30", "--days", "7"}), std::vector<std::string>{"Team"});

  // colour: always, even without a terminal and with NO_COLOR set; --colour never wins.
  EXPECT_THAT(configured({"events", "--from", "2026-11-02", "--days", "1"}).out, HasSubstr("\x1b["));
  EXPECT_THAT(configured({"--colour", "never", "events", "--from", "2026-11-02", "--days", "1"}).out,
              Not(HasSubstr("\x1b[")));

  // week-start: the month's grid begins its weeks on Sunday; --week-start wins.
  EXPECT_THAT(configured({"--colour", "never", "events", "--month", "--from", "2026-11-02"}).out,
              HasSubstr("Su Mo Tu We Th Fr Sa\n"));
  EXPECT_THAT(configured({"--week-start", "mon", "--colour", "never", "events", "--month", "--from", "2026-11-02"}).out,
              HasSubstr("Mo Tu We Th Fr Sa Su\n"));

  // default-calendar and default-list, by title; --calendar and --list win.
  auto event = configured({"new", "Cake", "--start", "2026-12-03T15:00", "--json"});
  ASSERT_EQ(event.status, 0) << event.err;
  EXPECT_EQ(json::parse(event.out)["calendar"]["calendarIdentifier"], "b");
  EXPECT_EQ(json::parse(configured({"new", "Tea", "--start", "2026-12-03T16:00", "--calendar", "c", "--json"}).out)
                ["calendar"]["calendarIdentifier"],
            "c");
  auto reminder = configured({"reminder", "new", "Call", "--json"});
  ASSERT_EQ(reminder.status, 0) << reminder.err;
  EXPECT_EQ(json::parse(reminder.out)["calendar"]["calendarIdentifier"], "t");
  auto errand = configured({"reminder", "new", "Bread", "--list", "Errands", "--json"});
  EXPECT_EQ(json::parse(errand.out)["calendar"]["calendarIdentifier"], "a-list");

  // A store the file names that is not there is named with the line that set it.
  writeFile(settingsFile(), "days = 3\nstore = " + (root_.path() / "gone").string() + "\n");
  auto missing = configured({"events"});
  EXPECT_EQ(missing.status, 4);
  EXPECT_THAT(missing.err, HasSubstr("there is no calendar store at " + (root_.path() / "gone").string() +
                                     " (the store from line 2 of " + settingsFile().string() + ")"));
}

TEST_F(VespConfigurationTest, WithoutAFileEachSettingHasItsDefault) {
  auto shown = configured({"config", "--json"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  const json listed = json::parse(shown.out);
  EXPECT_EQ(listed["exists"], false);
  for (const auto& [key, setting] : listed["settings"].items()) {
    EXPECT_EQ(setting, json({{"value", nullptr}, {"from", "default"}})) << key;
  }
  auto event = configured({"--store", root_.path().string(), "new", "Cake", "--start", "2026-12-03T15:00", "--json"});
  ASSERT_EQ(event.status, 0) << event.err;
  EXPECT_EQ(json::parse(event.out)["calendar"]["calendarIdentifier"], "b") << "the first writable calendar";
  EXPECT_EQ(titles({"--store", root_.path().string(), "events", "--from", "2026-10-30"}),
            (std::vector<std::string>{"Team", "Ada"}))
      << "seven days, and no calendar hidden";
  EXPECT_FALSE(fs::exists(settingsFile()));
}

TEST_F(VespConfigurationTest, AMalformedFileIsAnErrorThatNamesItsLine) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"# mine\n\ndays = 3\ncolour = sometimes\n", "line 4: colour \"sometimes\" is not auto, always or never"},
      {"store /somewhere\n", "line 1: \"store /somewhere\" is not a setting: each line is key = value, or a # comment"},
      {"days = 3\nweek-start = monday\ndays = 4\n", "line 3: days is set again (first on line 1)"},
      {"# old name\ncolor = always\n", "line 2: \"color\" is not a setting (the settings are store, timezone, "},
      {"timezone = Mars/Olympus\n", "line 1: timezone \"Mars/Olympus\" is not a zone of the time zone database"},
      {"days = 0\n", "line 1: days \"0\" is not a number of days from 1 to 3660"},
      {"week-start = s\n", "line 1: week-start \"s\" is not a weekday"},
      {"store = calendars\n", "line 1: store \"calendars\" is not an absolute path"},
      {"hidden-calendars = a,,b\n", "line 1: hidden-calendars \"a,,b\" has an empty name between its commas"},
      {"default-list =\n", "line 1: default-list needs a value"},
  };
  for (const auto& [text, message] : cases) {
    writeFile(settingsFile(), text);
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"--store", root_.path().string(), "events"}, std::vector<std::string>{"config"}}) {
      auto failed = configured(command);
      EXPECT_EQ(failed.status, 2) << text;
      EXPECT_EQ(failed.out, "") << text;
      EXPECT_THAT(failed.err,
                  HasSubstr("the configuration file " + settingsFile().string() + " is wrong on " + message))
          << text;
      EXPECT_THAT(failed.err, HasSubstr("Mend that line, or remove it")) << text;
    }
  }
  // An option's value is checked as the line's would be.
  fs::remove(settingsFile());
  auto option = configured({"--colour", "sometimes", "--store", root_.path().string(), "events"});
  EXPECT_EQ(option.status, 2);
  EXPECT_THAT(option.err, HasSubstr("--colour: \"sometimes\" is not auto, always or never"));
  auto zone = configured({"--timezone", "Mars/Olympus", "--store", root_.path().string(), "events"});
  EXPECT_EQ(zone.status, 2);
  EXPECT_THAT(zone.err, HasSubstr("--timezone: \"Mars/Olympus\" is not a zone of the time zone database"));
}

TEST_F(VespConfigurationTest, InitWritesEverySettingExplainedAndCarriesOverTheEarlierSettings) {
  const std::string root = fs::canonical(root_.path()).string();
  writeFile(legacySettingsFile(), json{{"version", 1},
                                       {"stores",
                                        {{root, {{"defaultCalendar", "c"}}},
                                         {"/elsewhere", {{"defaultCalendar", "home"}}}}}}
                                      .dump(2));
  // Until the file exists, the earlier settings still choose the calendar.
  const std::vector<std::string> show{"--store", root, "config", "--json"};
  auto before = configured(show);
  ASSERT_EQ(before.status, 0) << before.err;
  EXPECT_EQ(json::parse(before.out)["settings"]["default-calendar"],
            json({{"value", "c"}, {"from", legacySettingsFile().string()}}));

  auto created = configured({"--store", root, "config", "init"});
  ASSERT_EQ(created.status, 0) << created.err;
  EXPECT_THAT(created.err, HasSubstr("Created " + settingsFile().string()));
  const std::string text = vdir::testing::readFile(settingsFile());
  EXPECT_THAT(text, HasSubstr("\n# default-calendar = personal\ndefault-calendar = c\n"));
  EXPECT_THAT(text, HasSubstr("# For the store /elsewhere, " + legacySettingsFile().string() +
                              " set default-calendar = home.\n"));
  for (const auto& key : {"store", "timezone", "default-list", "hidden-calendars", "days", "colour", "week-start"}) {
    EXPECT_THAT(text, HasSubstr(std::string("\n# ") + key + " = ")) << key;
    EXPECT_THAT(text, Not(HasSubstr(std::string("\n") + key + " ="))) << "left commented out: " << key;
  }
  EXPECT_EQ(fs::status(settingsFile()).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
  auto after = configured(show);
  ASSERT_EQ(after.status, 0) << after.err;
  EXPECT_THAT(json::parse(after.out)["settings"]["default-calendar"]["from"].get<std::string>(),
              ::testing::StartsWith("line "));
  auto event = configured({"--store", root, "new", "Cake", "--start", "2026-12-03T15:00", "--json"});
  ASSERT_EQ(event.status, 0) << event.err;
  EXPECT_EQ(json::parse(event.out)["calendar"]["calendarIdentifier"], "c");

  auto again = configured({"config", "init"});
  EXPECT_EQ(again.status, 1);
  EXPECT_THAT(again.err, HasSubstr("already exists: edit it, or remove it to create it again"));
  EXPECT_EQ(vdir::testing::readFile(settingsFile()), text);
}

TEST_F(VespConfigurationTest, SettingTheDefaultListKeepsEveryOtherLine) {
  writeFile(settingsFile(), "# mine\ndays = 3\n# default-list = tasks\n\n");
  auto set = configured({"--store", root_.path().string(), "config", "default-list", "Tasks", "--json"});
  ASSERT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(vdir::testing::readFile(settingsFile()), "# mine\ndays = 3\n# default-list = tasks\ndefault-list = t\n\n");
  auto calendar = configured({"--store", root_.path().string(), "config", "default-list", "Birthdays"});
  EXPECT_EQ(calendar.status, 2);
  EXPECT_THAT(calendar.err, HasSubstr("\"Birthdays\" is an event calendar: the default list is for reminders"));
  auto unset = configured({"--store", root_.path().string(), "config", "default-list", "--unset"});
  ASSERT_EQ(unset.status, 0) << unset.err;
  EXPECT_EQ(vdir::testing::readFile(settingsFile()), "# mine\ndays = 3\n# default-list = tasks\n\n");
}

}  // namespace
}  // namespace vesp::tool
