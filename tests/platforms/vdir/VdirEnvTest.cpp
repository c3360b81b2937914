// This machine's environment as the store sees it: what a listing says, what is absent and what
// fails, reads under a limit, directories held open, mapped files, watches and the clock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <latch>
#include <optional>
#include <thread>
#include <map>
#include <string>
#include <vector>

#include "platforms/vdir/VdirEnv.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryDirectory;
using testing::writeFile;
using namespace std::chrono_literals;

class VdirEnvTest : public ::testing::Test {
 protected:
  std::string at(const std::string& name) const { return (root_.path() / name).string(); }

  TemporaryDirectory root_;
  std::shared_ptr<VdirEnv> env_ = VdirEnv::posix();
};

TEST_F(VdirEnvTest, AListingSaysWhatEachEntryIsHiddenOnesIncluded) {
  writeFile(root_.path() / "a.ics", "text");
  writeFile(root_.path() / ".hidden", "text");
  fs::create_directory(root_.path() / "cal");
  fs::create_symlink(root_.path() / "cal", root_.path() / "link");
  ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);

  auto entries = env_->list(root_.path().string());

  ASSERT_TRUE(entries) << entries.error().message();
  std::map<std::string, VdirFileKind> kinds;
  for (const auto& entry : *entries) kinds[entry.name] = entry.kind;
  EXPECT_EQ(kinds, (std::map<std::string, VdirFileKind>{{".hidden", VdirFileKind::file},
                                                        {"a.ics", VdirFileKind::file},
                                                        {"cal", VdirFileKind::directory},
                                                        {"fifo", VdirFileKind::other},
                                                        {"link", VdirFileKind::link}}));
  // The status follows the link.
  auto linked = env_->status(at("link"));
  ASSERT_TRUE(linked && *linked);
  EXPECT_EQ((*linked)->kind, VdirFileKind::directory);
}

TEST_F(VdirEnvTest, WhatIsNotThereIsAbsentAndNotAFailure) {
  writeFile(root_.path() / "file", "text");
  for (const auto& path : {at("missing"), at("file") + "/under-a-file"}) {
    auto status = env_->status(path);
    ASSERT_TRUE(status) << path;
    EXPECT_FALSE(*status) << path;
    auto read = env_->read(path, 100);
    ASSERT_TRUE(read) << path;
    EXPECT_FALSE(*read) << path;
  }
  // A directory that cannot be listed is a failure, with the reason.
  auto listed = env_->list(at("missing"));
  ASSERT_FALSE(listed);
  EXPECT_THAT(listed.error().message(), ::testing::HasSubstr("No such file or directory"));
}

TEST_F(VdirEnvTest, AFileIsReadWholeWithItsVersionOrSaidToBeTooLong) {
  writeFile(root_.path() / "ten", "0123456789");

  auto whole = env_->read(at("ten"), 10);
  ASSERT_TRUE(whole && *whole);
  EXPECT_EQ((*whole)->text, "0123456789");
  EXPECT_FALSE((*whole)->tooLong);
  struct stat status {};
  ASSERT_EQ(::stat(at("ten").c_str(), &status), 0);
  EXPECT_EQ((*whole)->status.kind, VdirFileKind::file);
  EXPECT_EQ((*whole)->status.size, 10);
  EXPECT_EQ((*whole)->status.inode, static_cast<std::uint64_t>(status.st_ino));
  EXPECT_EQ((*whole)->status.modified, status.st_mtim.tv_sec * 1'000'000'000LL + status.st_mtim.tv_nsec);

  auto cut = env_->read(at("ten"), 9);
  ASSERT_TRUE(cut && *cut);
  EXPECT_TRUE((*cut)->tooLong);
  EXPECT_EQ((*cut)->text, "");
  EXPECT_EQ((*cut)->status.size, 10);
}

TEST_F(VdirEnvTest, ADirectoryHeldOpenReadsItsFilesWhereverItIsMoved) {
  writeFile(root_.path() / "cal" / "a.ics", "event");
  auto directory = env_->openDirectory(at("cal"));
  ASSERT_TRUE(directory) << directory.error().message();
  fs::rename(root_.path() / "cal", root_.path() / "moved");

  auto read = env_->read(**directory, "a.ics", 100);
  ASSERT_TRUE(read && *read);
  EXPECT_EQ((*read)->text, "event");
  auto status = env_->status(**directory, "a.ics");
  ASSERT_TRUE(status && *status);
  EXPECT_EQ((*status)->size, 5);
  auto absent = env_->read(**directory, "b.ics", 100);
  ASSERT_TRUE(absent);
  EXPECT_FALSE(*absent);
}

TEST_F(VdirEnvTest, WhatIsNoRegularFileIsNotReadAsOne) {
  ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
  fs::create_directory(root_.path() / "directory");
  // A FIFO without a writer would block a reader that waited for one.
  for (const auto& path : {at("fifo"), at("directory")}) {
    auto read = env_->read(path, 100);
    ASSERT_TRUE(read) << path;
    EXPECT_FALSE(*read) << path;
  }
}

TEST_F(VdirEnvTest, AMappedFileHoldsItsBytesAndAnEmptyOneNone) {
  writeFile(root_.path() / "data", std::string("a\0b", 3));
  writeFile(root_.path() / "empty", "");
  auto data = env_->map(at("data"));
  ASSERT_TRUE(data) << data.error().message();
  EXPECT_EQ((*data)->bytes(), std::string_view("a\0b", 3));
  auto empty = env_->map(at("empty"));
  ASSERT_TRUE(empty);
  EXPECT_TRUE((*empty)->bytes().empty());
  EXPECT_FALSE(env_->map(at("missing")));
}

// The resident size, in kB, of this process's mapping that holds `address` (from /proc/self/smaps).
std::optional<long> residentKilobytesOfMappingAt(const void* address) {
  std::ifstream smaps("/proc/self/smaps");
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  bool inside = false;
  for (std::string line; std::getline(smaps, line);) {
    unsigned long begin = 0, end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx ", &begin, &end) == 2 && line.find(':') > line.find('-')) {
      inside = begin <= wanted && wanted < end;
    } else if (inside && line.rfind("Rss:", 0) == 0) {
      return std::stol(line.substr(4));
    }
  }
  return std::nullopt;
}

TEST_F(VdirEnvTest, AMappedRegionGivesBackTheWholePagesOfWhatIsReleasedAndStillReadsTheSame) {
  std::string text(4 << 20, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>((i * 2654435761u) >> 13);
  writeFile(root_.path() / "big", text);
  auto mapped = env_->map(at("big"));
  ASSERT_TRUE(mapped) << mapped.error().message();
  const VdirRegion& region = **mapped;
  const std::string_view bytes = region.bytes();
  ASSERT_TRUE(bytes == text);
  ASSERT_GE(residentKilobytesOfMappingAt(bytes.data()).value_or(0), 4000);

  // Parts outside the region, and empty ones, change nothing.
  region.release({});
  region.release(std::string_view(text));
  EXPECT_GE(residentKilobytesOfMappingAt(bytes.data()).value_or(0), 4000);
  // All but a byte at each end: the two pages that hold them stay.
  region.release(bytes.substr(1, bytes.size() - 2));
  EXPECT_LE(residentKilobytesOfMappingAt(bytes.data()).value_or(-1), 8);
  EXPECT_TRUE(bytes == text);
  EXPECT_GE(residentKilobytesOfMappingAt(bytes.data()).value_or(0), 4000) << "read again from the file";
}

TEST_F(VdirEnvTest, DirectoriesAreMadeAndAFileReplacedInThem) {
  const std::string file = at("x/y/file");
  ASSERT_TRUE(env_->createDirectories(at("x/y")));
  ASSERT_TRUE(env_->replace(file, "new", 0600, VdirDurability::synced));
  auto read = env_->read(file, 100);
  ASSERT_TRUE(read && *read);
  EXPECT_EQ((*read)->text, "new");
}

TEST_F(VdirEnvTest, AWatchReportsChangesInItsDirectoriesAndTheirEnd) {
  fs::create_directory(root_.path() / "cal");
  auto watch = env_->watch();
  ASSERT_TRUE(watch) << watch.error().message();
  ASSERT_TRUE((*watch)->add(at("cal")));
  EXPECT_FALSE((*watch)->add(at("missing")));

  writeFile(root_.path() / "cal" / "a.ics", "event");
  std::vector<VdirDirectoryWatch::Change> changes;
  ASSERT_EQ((*watch)->wait(5s, changes), VdirDirectoryWatch::Wake::changes);
  ASSERT_FALSE(changes.empty());
  EXPECT_EQ(changes[0].event, VdirDirectoryWatch::Event::changed);
  EXPECT_EQ(changes[0].directory, at("cal"));

  fs::remove_all(root_.path() / "cal");
  bool ended = false;
  for (int i = 0; i < 10 && !ended; ++i) {
    changes.clear();
    ASSERT_EQ((*watch)->wait(5s, changes), VdirDirectoryWatch::Wake::changes);
    ended = std::any_of(changes.begin(), changes.end(), [&](const auto& change) {
      return change.event == VdirDirectoryWatch::Event::ended && change.directory == at("cal");
    });
  }
  EXPECT_TRUE(ended);
}

// Every change a watch reports until it has been quiet for 200 ms.
std::vector<VdirDirectoryWatch::Change> changesWithin(VdirDirectoryWatch& watch) {
  std::vector<VdirDirectoryWatch::Change> changes;
  while (watch.wait(200ms, changes) == VdirDirectoryWatch::Wake::changes) {
  }
  return changes;
}

TEST_F(VdirEnvTest, AWatchedDirectoryMovedAwayIsLetGoAndItsPathWatchedAfresh) {
  fs::create_directory(root_.path() / "cal");
  auto watch = env_->watch();
  ASSERT_TRUE(watch) << watch.error().message();
  ASSERT_TRUE((*watch)->add(at("cal")));

  fs::rename(root_.path() / "cal", root_.path() / "cal.old");
  auto changes = changesWithin(**watch);
  EXPECT_TRUE(std::any_of(changes.begin(), changes.end(), [&](const auto& change) {
    return change.event == VdirDirectoryWatch::Event::ended && change.directory == at("cal");
  }));
  // What happens in the directory under its new name is no longer reported under the old one.
  writeFile(root_.path() / "cal.old" / "a.ics", "old");
  EXPECT_THAT(changesWithin(**watch), ::testing::IsEmpty());

  fs::create_directory(root_.path() / "cal");
  ASSERT_TRUE((*watch)->add(at("cal")));
  writeFile(root_.path() / "cal" / "a.ics", "new");
  changes = changesWithin(**watch);
  ASSERT_FALSE(changes.empty());
  EXPECT_EQ(changes[0].event, VdirDirectoryWatch::Event::changed);
  EXPECT_EQ(changes[0].directory, at("cal"));
}

TEST_F(VdirEnvTest, ARemovedWatchReportsNothingMore) {
  fs::create_directory(root_.path() / "cal");
  auto watch = env_->watch();
  ASSERT_TRUE(watch);
  ASSERT_TRUE((*watch)->add(at("cal")));
  (*watch)->remove(at("cal"));
  (*watch)->remove(at("never-watched"));
  writeFile(root_.path() / "cal" / "a.ics", "event");
  fs::remove_all(root_.path() / "cal");
  EXPECT_THAT(changesWithin(**watch), ::testing::IsEmpty());
}

TEST_F(VdirEnvTest, AWaitEndsWithItsTimeoutOrAtOnceOnceStopped) {
  auto watch = env_->watch();
  ASSERT_TRUE(watch);
  ASSERT_TRUE((*watch)->add(root_.path().string()));
  std::vector<VdirDirectoryWatch::Change> changes;
  EXPECT_EQ((*watch)->wait(1ms, changes), VdirDirectoryWatch::Wake::timeout);
  (*watch)->stop();
  // Without a timeout: only the stop can end these waits.
  EXPECT_EQ((*watch)->wait(-1ms, changes), VdirDirectoryWatch::Wake::stop);
  EXPECT_EQ((*watch)->wait(-1ms, changes), VdirDirectoryWatch::Wake::stop);
  EXPECT_TRUE(changes.empty());
}

TEST_F(VdirEnvTest, TheClockIsTheRealTime) {
  auto real = std::chrono::duration_cast<std::chrono::nanoseconds>(
                  std::chrono::system_clock::now().time_since_epoch())
                  .count();
  EXPECT_NEAR(static_cast<double>(env_->now()), static_cast<double>(real), 1e9);
}

TEST_F(VdirEnvTest, AWrapperForwardsWhatItDoesNotOverride) {
  writeFile(root_.path() / "file", "text");
  auto wrapped = std::make_shared<testing::TestEnv>();
  wrapped->clock = [] { return std::int64_t{42}; };
  EXPECT_EQ(wrapped->now(), 42);
  auto read = wrapped->read(at("file"), 100);
  ASSERT_TRUE(read && *read);
  EXPECT_EQ((*read)->text, "text");
}

std::vector<std::string> namesIn(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// The file at `path` as an edit reads it before writing it back.
VdirFileBasis basisOf(VdirEnv& env, const std::string& path) {
  auto read = env.read(path, 1 << 20);
  EXPECT_TRUE(read && *read);
  if (!read || !*read) return {};
  return {(*read)->status, (*read)->text};
}

TEST_F(VdirEnvTest, ANewItemFileIsCreatedOnlyWhereNothingIs) {
  auto created = env_->write(at("a.ics"), "one", {});
  ASSERT_TRUE(created) << created.error().message();
  EXPECT_EQ(*created, VdirWriteOutcome::done);
  EXPECT_EQ(testing::readFile(at("a.ics")), "one");

  auto again = env_->write(at("a.ics"), "two", {});
  ASSERT_TRUE(again) << again.error().message();
  EXPECT_EQ(*again, VdirWriteOutcome::changedOnDisk);
  EXPECT_EQ(testing::readFile(at("a.ics")), "one");
  EXPECT_EQ(namesIn(root_.path()), std::vector<std::string>{"a.ics"}) << "no temporary file is left";
}

TEST_F(VdirEnvTest, AFileIsReplacedOnlyWhileItIsTheOneTheEditWasBasedOn) {
  writeFile(root_.path() / "a.ics", "old");
  fs::permissions(at("a.ics"), fs::perms(0640));
  const VdirFileBasis basis = basisOf(*env_, at("a.ics"));

  auto replaced = env_->write(at("a.ics"), "new", basis);
  ASSERT_TRUE(replaced) << replaced.error().message();
  EXPECT_EQ(*replaced, VdirWriteOutcome::done);
  EXPECT_EQ(testing::readFile(at("a.ics")), "new");
  EXPECT_EQ(fs::status(at("a.ics")).permissions(), fs::perms(0640)) << "the file keeps its mode";

  // The basis is now stale: another file stands at the path.
  auto stale = env_->write(at("a.ics"), "newer", basis);
  ASSERT_TRUE(stale);
  EXPECT_EQ(*stale, VdirWriteOutcome::changedOnDisk);
  EXPECT_EQ(testing::readFile(at("a.ics")), "new");

  // Removed meanwhile: nothing is created in its place.
  const VdirFileBasis current = basisOf(*env_, at("a.ics"));
  fs::remove(at("a.ics"));
  auto gone = env_->write(at("a.ics"), "again", current);
  ASSERT_TRUE(gone);
  EXPECT_EQ(*gone, VdirWriteOutcome::changedOnDisk);
  EXPECT_TRUE(namesIn(root_.path()).empty());
}

TEST_F(VdirEnvTest, AChangeWithTheSameSizeAndTimeIsToldByItsBytes) {
  writeFile(root_.path() / "a.ics", "aaaa");
  const VdirFileBasis basis = basisOf(*env_, at("a.ics"));
  {
    std::fstream same(at("a.ics"), std::ios::in | std::ios::out | std::ios::binary);
    same << "bbbb";
  }
  const timespec times[2] = {{0, UTIME_OMIT},
                             {static_cast<time_t>(basis.status->modified / 1'000'000'000),
                              static_cast<long>(basis.status->modified % 1'000'000'000)}};
  ASSERT_EQ(::utimensat(AT_FDCWD, at("a.ics").c_str(), times, 0), 0);
  const VdirFileBasis after = basisOf(*env_, at("a.ics"));
  ASSERT_EQ(after.status->inode, basis.status->inode);
  ASSERT_EQ(after.status->modified, basis.status->modified);

  auto written = env_->write(at("a.ics"), "mine", basis);
  ASSERT_TRUE(written);
  EXPECT_EQ(*written, VdirWriteOutcome::changedOnDisk);
  EXPECT_EQ(testing::readFile(at("a.ics")), "bbbb");
  auto removed = env_->remove(at("a.ics"), basis);
  ASSERT_TRUE(removed);
  EXPECT_EQ(*removed, VdirWriteOutcome::changedOnDisk);
  EXPECT_EQ(testing::readFile(at("a.ics")), "bbbb");
}

TEST_F(VdirEnvTest, AFileIsRemovedOnlyWhileItIsTheOneTheEditWasBasedOn) {
  writeFile(root_.path() / "a.ics", "one");
  const VdirFileBasis basis = basisOf(*env_, at("a.ics"));
  auto removed = env_->remove(at("a.ics"), basis);
  ASSERT_TRUE(removed) << removed.error().message();
  EXPECT_EQ(*removed, VdirWriteOutcome::done);
  EXPECT_FALSE(fs::exists(at("a.ics")));
  auto twice = env_->remove(at("a.ics"), basis);
  ASSERT_TRUE(twice);
  EXPECT_EQ(*twice, VdirWriteOutcome::changedOnDisk);
  auto nothing = env_->remove(at("a.ics"), {});
  ASSERT_TRUE(nothing);
  EXPECT_EQ(*nothing, VdirWriteOutcome::changedOnDisk);
}

TEST_F(VdirEnvTest, AWriteThatCannotBeDoneFailsWithItsReason) {
  auto nowhere = env_->write(at("missing/a.ics"), "one", {});
  ASSERT_FALSE(nowhere);
  EXPECT_THAT(nowhere.error().message(), ::testing::HasSubstr("No such file or directory"));
  writeFile(root_.path() / "a.ics", "one");
  VdirFileBasis basis = basisOf(*env_, at("a.ics"));
  fs::permissions(root_.path(), fs::perms(0555));
  if (::geteuid() != 0) {
    auto refused = env_->write(at("a.ics"), "two", basis);
    EXPECT_FALSE(refused);
  }
  fs::permissions(root_.path(), fs::perms(0755));
  EXPECT_EQ(testing::readFile(at("a.ics")), "one");
  EXPECT_EQ(namesIn(root_.path()), std::vector<std::string>{"a.ics"});
}

TEST_F(VdirEnvTest, ADirectoryWithoutWritePermissionIsReadOnlyEvenToTheSuperUser) {
  fs::create_directory(at("cal"));
  fs::permissions(at("cal"), fs::perms(0755));
  EXPECT_TRUE(env_->mayWrite(at("cal")));
  fs::permissions(at("cal"), fs::perms(0555));
  EXPECT_FALSE(env_->mayWrite(at("cal")));
  fs::permissions(at("cal"), fs::perms(0755));
  EXPECT_FALSE(env_->mayWrite(at("missing")));
}

TEST_F(VdirEnvTest, OfWritersStartingFromTheSameFileExactlyOneWins) {
  constexpr int kWriters = 6;
  for (int round = 0; round < 25; ++round) {
    writeFile(root_.path() / "a.ics", "base " + std::to_string(round));
    const VdirFileBasis basis = basisOf(*env_, at("a.ics"));
    std::latch start(kWriters);
    std::vector<std::optional<VdirWriteOutcome>> outcomes(kWriters);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
      writers.emplace_back([&, writer] {
        start.arrive_and_wait();
        auto written = env_->write(at("a.ics"), "writer " + std::to_string(writer), basis);
        if (written) outcomes[writer] = *written;
      });
    }
    for (auto& thread : writers) thread.join();
    int winners = 0;
    std::string winner;
    for (int writer = 0; writer < kWriters; ++writer) {
      ASSERT_TRUE(outcomes[writer]) << "writer " << writer << " failed";
      if (*outcomes[writer] == VdirWriteOutcome::done) {
        ++winners;
        winner = "writer " + std::to_string(writer);
      }
    }
    ASSERT_EQ(winners, 1) << "round " << round;
    EXPECT_EQ(testing::readFile(at("a.ics")), winner);
    EXPECT_EQ(namesIn(root_.path()), std::vector<std::string>{"a.ics"});
  }
}

}  // namespace
}  // namespace vesp::vdir
