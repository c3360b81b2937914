// The vesp program run as a user runs it, in a process of its own with its own access and
// configuration files, local zone Europe/Berlin: the fixtures its tests share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::tool::fixture {

using nlohmann::json;
using vdir::testing::TemporaryDirectory;
using vdir::testing::testData;
using vdir::testing::writeFile;
namespace fs = std::filesystem;

struct ProgramRun {
  int status = -1;
  std::string out, err;
};

inline std::string quoted(const std::string& text) {
  std::string result = "'";
  for (char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + "'";
}

// What `command` prints on stdout, and its exit status.
inline ProgramRun shell(const std::string& command) {
  ProgramRun run;
  FILE* pipe = ::popen(command.c_str(), "r");
  char buffer[65536];
  std::size_t count;
  while ((count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) run.out.append(buffer, count);
  const int status = ::pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

class VespProgramTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
  }

  // The shell words that run vesp with `arguments` in this test's environment.
  std::string vespCommand(const std::vector<std::string>& arguments, const std::string& environment = "") const {
    std::string command = "TZ=Europe/Berlin NO_COLOR=1 VESP_ACCESS_FILE=" +
                          quoted((config_.path() / "access.json").string()) +
                          " VESP_CONFIG_FILE=" + quoted(settingsFile().string()) + " " + environment + " " +
                          quoted(VESP_PROGRAM);
    for (const auto& argument : arguments) command += " " + quoted(argument);
    return command;
  }

  // Runs vesp with `arguments`, stdin from /dev/null (no terminal).
  ProgramRun vesp(const std::vector<std::string>& arguments, const std::string& environment = "") {
    fs::path errors = config_.path() / "stderr.txt";
    ProgramRun run = shell(vespCommand(arguments, environment) + " < /dev/null 2> " + quoted(errors.string()));
    run.err = vdir::testing::readFile(errors);
    return run;
  }

  std::string store(const std::string& name) { return testData(name).string(); }
  // The configuration file, and the per-store JSON settings that came before it, beside it.
  fs::path settingsFile() const { return config_.path() / "settings" / "config"; }
  fs::path legacySettingsFile() const { return config_.path() / "settings" / "config.json"; }

  TemporaryDirectory config_;
};

// A store of its own to write to: "c" for events (a weekly series, 09:00 Berlin from Monday
// 2 November 2026, five times) and "t" for to-dos.
class VespWritingTest : public VespProgramTest {
 protected:
  void SetUp() override {
    writeFile(root_.path() / "c/weekly.ics",
              "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Other//EN\r\nBEGIN:VEVENT\r\nUID:weekly\r\n"
              "DTSTAMP:20261001T000000Z\r\nDTSTART;TZID=Europe/Berlin:20261102T090000\r\n"
              "DTEND;TZID=Europe/Berlin:20261102T100000\r\nRRULE:FREQ=WEEKLY;COUNT=5\r\nSUMMARY:Team\r\n"
              "X-KEPT:yes\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
    writeFile(root_.path() / "t/displayname", "Tasks\n");
  }
  ProgramRun run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--store", root_.path().string(), "--yes"});
    return vesp(arguments);
  }
  // khal over collection c, local zone Europe/Berlin, dates as YYYY-MM-DD: the words that run it.
  std::string khalCommand() {
    writeFile(config_.path() / "khal.conf",
              "[calendars]\n[[c]]\npath = " + (root_.path() / "c").string() +
                  "\ntype = calendar\n[locale]\ntimeformat = %H:%M\ndateformat = %Y-%m-%d\n"
                  "longdateformat = %Y-%m-%d\ndatetimeformat = %Y-%m-%d %H:%M\nlongdatetimeformat = %Y-%m-%d %H:%M\n"
                  "default_timezone = Europe/Berlin\nlocal_timezone = Europe/Berlin\nfirstweekday = 0\n"
                  "[sqlite]\npath = " + (config_.path() / "khal.db").string() + "\n");
    return "TZ=Europe/Berlin khal -c " + quoted((config_.path() / "khal.conf").string());
  }
  json events(const std::string& from, const std::string& to) {
    auto listed = run({"events", "--from", from, "--to", to, "--json"});  // a global option after the command
    EXPECT_EQ(listed.status, 0) << listed.err;
    return json::parse(listed.out);
  }
  TemporaryDirectory root_;
};

}  // namespace vesp::tool::fixture
