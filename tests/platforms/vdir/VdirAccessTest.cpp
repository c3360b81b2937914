// The user's access decisions: kept per application and entity type in a small JSON file that is
// replaced whole, readable by its owner only, and forgiving of a damaged or foreign file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "platforms/vdir/VdirAccess.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using platform::EKAuthorizationStatusAuthorized;
using platform::EKAuthorizationStatusDenied;
using platform::EKAuthorizationStatusNotDetermined;
using platform::EKEntityTypeEvent;
using platform::EKEntityTypeReminder;
using testing::readFile;
using testing::TemporaryDirectory;
using testing::writeFile;
namespace fs = std::filesystem;

nlohmann::json fileContents(const fs::path& path) { return nlohmann::json::parse(readFile(path)); }

// Sets an environment variable for one test and puts the old value back.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value)
      ::setenv(name, value, 1);
    else
      ::unsetenv(name);
  }
  ~ScopedEnvironment() {
    if (old_)
      ::setenv(name_, old_->c_str(), 1);
    else
      ::unsetenv(name_);
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(VdirAccessTest, WithoutAFileNothingIsDeterminedAndReadingCreatesNothing) {
  TemporaryDirectory config;
  VdirAccess access((config.path() / "vesp/access.json").string(), "vesp");
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
  EXPECT_EQ(access.status(EKEntityTypeReminder), EKAuthorizationStatusNotDetermined);
  EXPECT_FALSE(fs::exists(config.path() / "vesp"));
}

TEST(VdirAccessTest, ADecisionIsKeptUnderItsApplicationAndEntityType) {
  TemporaryDirectory config;
  const fs::path file = config.path() / "vesp/access.json";
  VdirAccess access(file.string(), "vesp");
  ASSERT_TRUE(access.record(EKEntityTypeEvent, true));  // its directory is made
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusAuthorized);
  EXPECT_EQ(access.status(EKEntityTypeReminder), EKAuthorizationStatusNotDetermined);
  EXPECT_EQ(fileContents(file),
            nlohmann::json::parse(R"({"version": 1, "applications": {"vesp": {"events": "authorized"}}})"));
  // Another reader of the same file sees it; another application does not.
  EXPECT_EQ(VdirAccess(file.string(), "vesp").status(EKEntityTypeEvent), EKAuthorizationStatusAuthorized);
  EXPECT_EQ(VdirAccess(file.string(), "calendar-host").status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
}

TEST(VdirAccessTest, AnotherProcessesDecisionIsSeenAtTheNextQuestion) {
  TemporaryDirectory config;
  const fs::path file = config.path() / "access.json";
  VdirAccess access(file.string(), "vesp");
  EXPECT_EQ(access.status(EKEntityTypeReminder), EKAuthorizationStatusNotDetermined);
  writeFile(file, R"({"applications": {"vesp": {"events": "denied", "reminders": "authorized"}}})");
  EXPECT_EQ(access.status(EKEntityTypeReminder), EKAuthorizationStatusAuthorized);
  // Rewritten in place at once with the same size: too recent for its times to tell, so read again.
  writeFile(file, R"({"applications": {"vesp": {"events": "authorized", "reminders": "denied"}}})");
  EXPECT_EQ(access.status(EKEntityTypeReminder), EKAuthorizationStatusDenied);
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusAuthorized);
}

TEST(VdirAccessTest, ChangesAreSeenHoweverTheFileIsReplaced) {
  TemporaryDirectory config;
  const fs::path file = config.path() / "access.json";
  // Puts the modification time an hour back, as a copy that keeps times would.
  auto age = [&] {
    timespec times[2];
    ::clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= 3600;
    times[1] = times[0];
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  };
  writeFile(file, R"({"applications": {"vesp": {"events": "denied"}}})");
  age();
  VdirAccess access(file.string(), "vesp");
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusDenied);
  // Replaced by another file (a new inode) with an old modification time of its own.
  writeFile(config.path() / "next.json", R"({"applications": {"vesp": {"events": "authorized"}}})");
  fs::rename(config.path() / "next.json", file);
  age();
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusAuthorized);
  // Rewritten in place with the same size and the old modification time.
  writeFile(file, R"({"applications": {"vesp": {"events": "denied!!!!"}}})");
  age();
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
  fs::remove(file);
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
  writeFile(file, R"({"applications": {"vesp": {"events": "denied"}}})");
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusDenied);
}

TEST(VdirAccessTest, OtherApplicationsAndUnknownKeysSurviveADecision) {
  TemporaryDirectory config;
  const fs::path file = config.path() / "access.json";
  writeFile(file, R"({"version": 1, "note": "kept", "applications": {"other": {"events": "denied"}}})");
  VdirAccess access(file.string(), "vesp");
  ASSERT_TRUE(access.record(EKEntityTypeReminder, false));
  auto json = fileContents(file);
  EXPECT_EQ(json["note"], "kept");
  EXPECT_EQ(json["applications"]["other"]["events"], "denied");
  EXPECT_EQ(json["applications"]["vesp"]["reminders"], "denied");
  EXPECT_EQ(VdirAccess(file.string(), "other").status(EKEntityTypeEvent), EKAuthorizationStatusDenied);
}

TEST(VdirAccessTest, ForgettingADecisionMakesItNotDeterminedAgain) {
  TemporaryDirectory config;
  const fs::path file = config.path() / "access.json";
  VdirAccess access(file.string(), "vesp");
  ASSERT_TRUE(access.record(EKEntityTypeEvent, true));
  ASSERT_TRUE(access.record(EKEntityTypeReminder, true));
  ASSERT_TRUE(access.record(EKEntityTypeEvent, std::nullopt));
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
  EXPECT_EQ(access.status(EKEntityTypeReminder), EKAuthorizationStatusAuthorized);
  EXPECT_FALSE(fileContents(file)["applications"]["vesp"].contains("events"));
}

TEST(VdirAccessTest, WordsThatAreNoDecisionAreNotDetermined) {
  TemporaryDirectory config;
  const fs::path file = config.path() / "access.json";
  VdirAccess access(file.string(), "vesp");
  writeFile(file, R"({"applications": {"vesp": {"events": "maybe", "reminders": true}}})");
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
  EXPECT_EQ(access.status(EKEntityTypeReminder), EKAuthorizationStatusNotDetermined);
  writeFile(file, R"({"applications": {"vesp": "authorized"}})");
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
  writeFile(file, R"(["authorized"])");
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
}

TEST(VdirAccessTest, TheFileIsReplacedWholeAndReadableByItsOwnerOnly) {
  TemporaryDirectory config;
  VdirAccess access((config.path() / "access.json").string(), "vesp");
  ASSERT_TRUE(access.record(EKEntityTypeEvent, true));
  struct stat first {};
  ::stat((config.path() / "access.json").c_str(), &first);
  ASSERT_TRUE(access.record(EKEntityTypeReminder, false));
  struct stat second {};
  ::stat((config.path() / "access.json").c_str(), &second);
  EXPECT_NE(first.st_ino, second.st_ino);  // a new file renamed into place, never rewritten in place
  EXPECT_EQ(second.st_mode & 0777, 0600u);
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(config.path())) names.push_back(entry.path().filename().string());
  EXPECT_THAT(names, ::testing::ElementsAre("access.json"));  // no temporary file left behind
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusAuthorized);
  EXPECT_EQ(access.status(EKEntityTypeReminder), EKAuthorizationStatusDenied);
  // A damaged file reads as no decision, and the next decision replaces it.
  writeFile(config.path() / "access.json", "{not json");
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
  ASSERT_TRUE(access.record(EKEntityTypeEvent, true));
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusAuthorized);
}

TEST(VdirAccessTest, ADecisionTheFileCannotKeepHoldsForThisProcessOnly) {
  TemporaryDirectory config;
  writeFile(config.path() / "not-a-directory", "x");
  const fs::path file = config.path() / "not-a-directory/access.json";
  VdirAccess access(file.string(), "vesp");
  auto recorded = access.record(EKEntityTypeEvent, true);
  ASSERT_FALSE(recorded);
  EXPECT_THAT(recorded.error().message(), ::testing::HasSubstr("cannot write"));
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusAuthorized);
  EXPECT_EQ(VdirAccess(file.string(), "vesp").status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
  // Forgetting it is also kept for this process.
  EXPECT_FALSE(access.record(EKEntityTypeEvent, std::nullopt));
  EXPECT_EQ(access.status(EKEntityTypeEvent), EKAuthorizationStatusNotDetermined);
}

TEST(VdirAccessTest, TheDefaultFileFollowsXdgConfigHomeThenHome) {
  {
    ScopedEnvironment xdg("XDG_CONFIG_HOME", "/tmp/xdg-config");
    EXPECT_EQ(VdirAccess::defaultFile(), "/tmp/xdg-config/vesp/access.json");
  }
  {
    ScopedEnvironment xdg("XDG_CONFIG_HOME", "");
    ScopedEnvironment home("HOME", "/home/ann");
    EXPECT_EQ(VdirAccess::defaultFile(), "/home/ann/.config/vesp/access.json");
  }
  {
    ScopedEnvironment xdg("XDG_CONFIG_HOME", nullptr);
    ScopedEnvironment home("HOME", "/home/bo");
    EXPECT_EQ(VdirAccess::defaultFile(), "/home/bo/.config/vesp/access.json");
  }
}

}  // namespace
}  // namespace vesp::vdir
