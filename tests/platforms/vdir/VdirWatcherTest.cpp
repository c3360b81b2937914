// The watcher alone, without a store: which directories it watches, and when it wakes its caller
// (a burst of changes over, a lost event queue, a root to look for again, a stop request).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>

#include "platforms/vdir/VdirWatcher.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::TemporaryDirectory;
using testing::writeFile;
using namespace std::chrono_literals;

class VdirWatcherTest : public ::testing::Test {
 protected:
  VdirWatcherTest() { EXPECT_EQ(::pipe2(stop_, O_CLOEXEC), 0); }
  ~VdirWatcherTest() override {
    ::close(stop_[0]);
    ::close(stop_[1]);
  }

  VdirWatcher make(const std::string& root) { return {root, 20ms, 200ms, stop_[0], drop_, overflows_}; }

  void requestStop() { ASSERT_EQ(::write(stop_[1], "x", 1), 1); }

  TemporaryDirectory root_;
  int stop_[2] = {-1, -1};
  std::atomic<bool> drop_{false};
  std::atomic<std::uint64_t> overflows_{0};
};

TEST_F(VdirWatcherTest, ABurstOfChangesWakesItOnceWhenTheBurstIsOver) {
  VdirWatcher watcher = make(root_.path().string());
  ASSERT_FALSE(watcher.problem());
  EXPECT_TRUE(watcher.watch({root_.path().string()}));
  writeFile(root_.path() / "cal" / "a.ics", "one");
  writeFile(root_.path() / "b.ics", "two");
  std::filesystem::remove(root_.path() / "b.ics");

  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::changed);
  // Nothing happened since: the next wake is the stop request, not another change.
  requestStop();
  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::stop);
  EXPECT_EQ(overflows_.load(), 0u);
}

TEST_F(VdirWatcherTest, AStopRequestEndsTheWait) {
  VdirWatcher watcher = make(root_.path().string());
  watcher.watch({root_.path().string()});
  requestStop();
  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::stop);
}

TEST_F(VdirWatcherTest, AChangeMarkedByTheCallerWakesItLikeAnEvent) {
  VdirWatcher watcher = make(root_.path().string());
  watcher.watch({root_.path().string()});
  watcher.markChanged();
  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::changed);
}

TEST_F(VdirWatcherTest, LostEventsCountAsAnOverflowAndAChange) {
  VdirWatcher watcher = make(root_.path().string());
  watcher.watch({root_.path().string()});
  drop_ = true;
  writeFile(root_.path() / "a.ics", "one");

  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::changed);
  EXPECT_EQ(overflows_.load(), 1u);
  EXPECT_FALSE(drop_.load());
}

TEST_F(VdirWatcherTest, ARootThatIsNotThereIsLookedForAgain) {
  const std::string absent = (root_.path() / "absent").string();
  VdirWatcher watcher = make(absent);
  EXPECT_FALSE(watcher.watch({absent}));
  // No event can come from a directory that is not there: the watcher wakes its caller to look.
  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::changed);
  std::filesystem::create_directory(absent);
  EXPECT_TRUE(watcher.watch({absent}));
  writeFile(std::filesystem::path(absent) / "a.ics", "one");
  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::changed);
}

TEST_F(VdirWatcherTest, ItWatchesTheRootItsCollectionsAndItsAccounts) {
  const auto root = root_.path();
  std::filesystem::create_directories(root / "account" / "home");
  std::filesystem::create_directories(root / "local");
  std::filesystem::create_directories(root / "new-account");
  std::filesystem::create_directories(root / ".git");
  writeFile(root / "notes.txt", "not a directory");
  VdirSnapshot snapshot;
  snapshot.collections.push_back({"account/home", (root / "account" / "home").string(), nullptr, {}});
  snapshot.collections.push_back({"local", (root / "local").string(), nullptr, {}});

  EXPECT_EQ(VdirWatcher::directoriesOf(snapshot, root.string()),
            (std::set<std::string>{root.string(), (root / "account").string(), (root / "account" / "home").string(),
                                   (root / "local").string(), (root / "new-account").string()}));
}

}  // namespace
}  // namespace vesp::vdir
