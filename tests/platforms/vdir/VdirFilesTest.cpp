// Reading a file whole under a limit, and replacing one so that readers see the old or the new
// file and nothing else is left behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "platforms/vdir/VdirFiles.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using ::testing::HasSubstr;
using testing::readFile;
using testing::TemporaryDirectory;
using testing::writeFile;
namespace fs = std::filesystem;

std::vector<std::string> namesIn(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

rivet::RivetResult<std::string> readUnder(const fs::path& path, std::uintmax_t limit) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0);
  auto text = readOpenFile(fd, 0, limit);
  ::close(fd);
  return text;
}

TEST(VdirFilesTest, AFileIsReadWholeUpToItsLimit) {
  TemporaryDirectory directory;
  const std::string text(200000, 'x');
  writeFile(directory.path() / "a", text);

  EXPECT_EQ(readUnder(directory.path() / "a", 200000).value(), text);
  // One byte past the limit tells the caller the file is too large, without reading the rest.
  EXPECT_EQ(readUnder(directory.path() / "a", 1000).value().size(), 1001u);
  writeFile(directory.path() / "empty", "");
  EXPECT_EQ(readUnder(directory.path() / "empty", 10).value(), "");
}

TEST(VdirFilesTest, AReadThatFailsSaysWhy) {
  TemporaryDirectory directory;
  auto text = readUnder(directory.path(), 100);  // a directory: read() fails
  ASSERT_FALSE(text);
  EXPECT_EQ(text.error().message(), "file cannot be read: Is a directory");
}

TEST(VdirFilesTest, AReplacementLeavesTheNewContentWithItsModeAndNoTemporary) {
  for (auto durability : {VdirDurability::synced, VdirDurability::unsynced}) {
    TemporaryDirectory directory;
    const fs::path path = directory.path() / "access.json";
    writeFile(path, "old");
    ASSERT_TRUE(replaceFile(path.string(), "new content", 0640, durability));
    EXPECT_EQ(readFile(path), "new content");
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_THAT(namesIn(directory.path()), ::testing::ElementsAre("access.json"));
    // A file that is not there yet is made.
    ASSERT_TRUE(replaceFile((directory.path() / "fresh").string(), "", 0600, durability));
    EXPECT_TRUE(fs::is_regular_file(directory.path() / "fresh"));
  }
}

TEST(VdirFilesTest, AFailedReplacementLeavesWhatWasThereAndNoTemporary) {
  TemporaryDirectory directory;
  // A directory in the way: the rename fails, after the temporary was written.
  fs::create_directory(directory.path() / "taken");
  writeFile(directory.path() / "taken" / "inside", "kept");
  auto replaced = replaceFile((directory.path() / "taken").string(), "new", 0600, VdirDurability::synced);
  ASSERT_FALSE(replaced);
  EXPECT_THAT(replaced.error().message(), HasSubstr("cannot replace " + (directory.path() / "taken").string()));
  EXPECT_EQ(readFile(directory.path() / "taken" / "inside"), "kept");
  EXPECT_THAT(namesIn(directory.path()), ::testing::ElementsAre("taken"));

  // No directory to write the temporary in.
  auto nowhere = replaceFile((directory.path() / "absent" / "file").string(), "new", 0600, VdirDurability::synced);
  ASSERT_FALSE(nowhere);
  EXPECT_THAT(nowhere.error().message(), HasSubstr("cannot write"));
}

// Restores TZ when a test that set it ends.
class ScopedTz {
 public:
  explicit ScopedTz(const char* value) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    ::setenv("TZ", value, 1);
  }
  ~ScopedTz() {
    if (old_)
      ::setenv("TZ", old_->c_str(), 1);
    else
      ::unsetenv("TZ");
  }

 private:
  std::optional<std::string> old_;
};

TEST(VdirFilesTest, TheSystemZoneIsReadFromTzFirst) {
  {
    ScopedTz tz(":Europe/Paris");
    EXPECT_EQ(systemLocalZoneName(), "Europe/Paris");
  }
  {
    ScopedTz tz("/usr/share/zoneinfo/Asia/Tokyo");
    EXPECT_EQ(systemLocalZoneName(), "Asia/Tokyo");
  }
  {
    ScopedTz tz("America/Chicago");
    EXPECT_EQ(systemLocalZoneName(), "America/Chicago");
  }
}

}  // namespace
}  // namespace vesp::vdir
