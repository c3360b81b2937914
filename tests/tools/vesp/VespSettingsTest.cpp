// The configuration file's settings read one by one, and the file written back line by line.
#include "tools/vesp/VespSettings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>

#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::tool {
namespace {

using ::testing::HasSubstr;
using vdir::testing::TemporaryDirectory;
using vdir::testing::readFile;
using vdir::testing::writeFile;

TEST(VespSettingsTest, EachSettingTakesItsValuesAndSaysWhyItRefusesOthers) {
  VespConfiguration read;
  for (const auto& [key, value] : std::vector<std::pair<const char*, const char*>>{
           {"store", "/srv/calendars"}, {"timezone", "America/New_York"}, {"default-calendar", "Work"},
           {"default-list", "Tasks"}, {"hidden-calendars", " Birthdays ,Holidays"}, {"days", "14"},
           {"colour", "never"}, {"week-start", "Sat"}})
    EXPECT_EQ(readSetting(read, key, value), std::nullopt) << key;
  EXPECT_EQ(read.store, "/srv/calendars");
  EXPECT_EQ(read.timezone, "America/New_York");
  EXPECT_EQ(read.defaultCalendar, "Work");
  EXPECT_EQ(read.defaultList, "Tasks");
  EXPECT_EQ(read.hiddenCalendars, (std::vector<std::string>{"Birthdays", "Holidays"}));
  EXPECT_EQ(read.days, 14);
  EXPECT_EQ(read.colour, VespColour::never);
  EXPECT_EQ(read.firstWeekday, 6);
  EXPECT_EQ(read.texts.at("hidden-calendars"), "Birthdays ,Holidays");

  VespConfiguration home;
  if (const char* directory = std::getenv("HOME"); directory && *directory == '/') {
    ASSERT_EQ(readSetting(home, "store", "~/cal"), std::nullopt);
    EXPECT_EQ(home.store, std::string(directory) + "/cal");
  }
  ASSERT_EQ(readSetting(home, "hidden-calendars", ""), std::nullopt);
  EXPECT_EQ(home.hiddenCalendars, std::vector<std::string>{}) << "an empty list hides none";
  ASSERT_EQ(readSetting(home, "timezone", "UTC"), std::nullopt);

  const std::vector<std::tuple<const char*, const char*, const char*>> refused{
      {"store", "cal", "\"cal\" is not an absolute path"},
      {"store", "~user/cal", "\"~user/cal\" is not an absolute path"},
      {"timezone", "Europe/Nowhere", "\"Europe/Nowhere\" is not a zone of the time zone database"},
      {"timezone", "../../etc/passwd", "is not a zone of the time zone database"},
      {"timezone", "/usr/share/zoneinfo/UTC", "is not a zone of the time zone database"},
      {"timezone", "Europe", "is not a zone of the time zone database"},
      {"default-calendar", "", "needs a value"},
      {"hidden-calendars", "a,", "\"a,\" ends with a comma"},
      {"hidden-calendars", ",a", "has an empty name between its commas"},
      {"days", "3661", "\"3661\" is not a number of days from 1 to 3660"},
      {"days", "-1", "is not a number of days"},
      {"days", "7d", "is not a number of days"},
      {"days", "99999999999", "is not a number of days"},
      {"colour", "yes", "\"yes\" is not auto, always or never"},
      {"week-start", "t", "\"t\" is not a weekday"},
      {"default-list", "a\x1b[2Jb", "holds a control character"},
      {"frobnicate", "1", "\"frobnicate\" is not a setting"},
  };
  for (const auto& [key, value, why] : refused) {
    VespConfiguration refusing;
    const auto reason = readSetting(refusing, key, value);
    ASSERT_TRUE(reason) << key << " " << value;
    EXPECT_THAT(*reason, HasSubstr(why)) << key << " " << value;
    EXPECT_TRUE(refusing.texts.empty()) << key << " " << value;
  }
}

TEST(VespSettingsTest, TheInitialFileExplainsEverySettingAndSetsOnlyThoseGiven) {
  TemporaryDirectory directory;
  const auto file = (directory.path() / "config").string();
  writeFile(file, VespSettings::initialText({}, {"A note."}, "Europe/Berlin"));
  const VespSettings empty(file);
  EXPECT_TRUE(empty.exists());
  EXPECT_TRUE(empty.configuration().texts.empty());
  const std::string text = readFile(file);
  EXPECT_THAT(text, HasSubstr("#\n# A note.\n"));
  for (const auto& key : settingKeys()) {
    EXPECT_THAT(text, HasSubstr(std::string("\n# Option: ") + key.option + ". Default: " + key.byDefault + ".\n# " +
                                key.key + " = "))
        << key.key;
    // Each example, taken out of its comment, is a value the setting takes.
    const std::string marker = std::string("\n# ") + key.key + " = ";
    const auto start = text.find(marker) + marker.size();
    const auto value = text.substr(start, text.find('\n', start) - start);
    VespConfiguration taken;
    EXPECT_EQ(readSetting(taken, key.key, value), std::nullopt) << key.key << " = " << value;
  }

  writeFile(file, VespSettings::initialText({{"days", "5"}}, {}, "UTC"));
  const VespSettings given(file);
  EXPECT_EQ(given.configuration().days, 5);
  EXPECT_GT(given.lineOf("days"), 1);
  EXPECT_EQ(given.lineOf("colour"), 0);

  // As editors on other systems write it: a byte order mark first, lines ending in CR LF.
  writeFile(file, "\xEF\xBB\xBF" "days = 3\r\n# note\r\ncolour = never\r\n");
  const VespSettings windows(file);
  EXPECT_EQ(windows.configuration().days, 3);
  EXPECT_EQ(windows.configuration().colour, VespColour::never);
  EXPECT_EQ(windows.lineOf("colour"), 3);
}

TEST(VespSettingsTest, SettingALineKeepsTheOthersAndAnEqualValueWritesNothing) {
  TemporaryDirectory directory;
  const auto file = (directory.path() / "vesp" / "config").string();
  VespSettings settings(file);
  EXPECT_FALSE(settings.exists());
  settings.set("days", "4", "# first\n");
  EXPECT_EQ(readFile(file), "# first\ndays = 4\n") << "created from the initial text, the line added at the end";
  settings.set("colour", "never", "");
  settings.set("days", "6", "");
  EXPECT_EQ(readFile(file), "# first\ndays = 6\ncolour = never\n");
  EXPECT_EQ(settings.configuration().days, 6);

  // The same value again, or taking away a line the file does not have, leaves the file alone (a
  // write replaces it by a new file).
  writeFile(file, "# first\ndays = 6\ncolour = never\n# by hand\n");
  VespSettings reread(file);
  auto inode = [&] {
    struct stat status {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0);
    return status.st_ino;
  };
  const auto before = inode();
  reread.set("days", "6", "");
  reread.set("week-start", std::nullopt, "");
  EXPECT_EQ(inode(), before);
  EXPECT_THROW(reread.set("days", "0", ""), std::runtime_error);
  EXPECT_EQ(inode(), before);
  reread.set("days", "7", "");
  EXPECT_NE(inode(), before);
  reread.set("colour", std::nullopt, "");
  EXPECT_EQ(readFile(file), "# first\ndays = 7\n# by hand\n");
}

TEST(VespSettingsTest, TheEarlierJsonSettingsGiveThisStoresCalendarAndNameTheOthers) {
  TemporaryDirectory directory;
  const auto file = (directory.path() / "config").string();
  EXPECT_EQ(VespSettings::legacyDefaultCalendar(file, "/store"), std::nullopt) << "no earlier file";
  writeFile(directory.path() / "config.json",
            R"({"version": 1, "stores": {"/store": {"defaultCalendar": "work"}, "/other": {"defaultCalendar": "x"},
                "/odd": {"defaultCalendar": 3}}})");
  std::vector<std::string> others;
  EXPECT_EQ(VespSettings::legacyDefaultCalendar(file, "/store", &others), "work");
  ASSERT_EQ(others.size(), 1u);
  EXPECT_THAT(others[0], HasSubstr("For the store /other, "));
  EXPECT_THAT(others[0], HasSubstr("config.json set default-calendar = x."));
  writeFile(directory.path() / "config.json", "[1, 2");
  EXPECT_EQ(VespSettings::legacyDefaultCalendar(file, "/store"), std::nullopt);
}

}  // namespace
}  // namespace vesp::tool
