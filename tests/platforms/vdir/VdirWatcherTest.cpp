// The watcher alone, without a store: which directories it watches, and when it wakes its caller
// (a burst of changes over, a lost event queue, a root to look for again, a stop request).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>

#include "platforms/vdir/VdirWatcher.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::TemporaryDirectory;
using testing::writeFile;
using namespace std::chrono_literals;

class VdirWatcherTest : public ::testing::Test {
 protected:
  VdirWatcherTest() {
    auto watch = env_->watch();
    EXPECT_TRUE(watch) << watch.error().message();
    if (watch) watch_ = std::move(watch).value();
  }

  VdirWatcher make(const std::string& root) { return {*watch_, root, 20ms, 200ms, overflows_}; }

  void requestStop() { watch_->stop(); }

  TemporaryDirectory root_;
  std::shared_ptr<testing::TestEnv> env_ = std::make_shared<testing::TestEnv>();
  std::unique_ptr<VdirDirectoryWatch> watch_;
  std::atomic<std::uint64_t> overflows_{0};
};

TEST_F(VdirWatcherTest, ABurstOfChangesWakesItOnceWhenTheBurstIsOver) {
  VdirWatcher watcher = make(root_.path().string());
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
  env_->loseNextChanges = true;
  writeFile(root_.path() / "a.ics", "one");

  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::changed);
  EXPECT_EQ(overflows_.load(), 1u);
  EXPECT_FALSE(env_->loseNextChanges.load());
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

TEST_F(VdirWatcherTest, ARootMovedAwayIsLetGoWithEverythingUnderItAndWatchedAgainWhenItReappears) {
  const auto root = root_.path() / "store";
  const auto moved = root_.path() / "store.old";
  std::filesystem::create_directories(root / "account" / "home");
  const std::set<std::string> wanted{root.string(), (root / "account").string(), (root / "account" / "home").string()};
  VdirWatcher watcher = make(root.string());
  ASSERT_TRUE(watcher.watch(wanted));

  std::filesystem::rename(root, moved);
  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::changed);
  EXPECT_FALSE(watcher.watch(wanted));

  std::filesystem::create_directories(root / "account" / "home");
  EXPECT_TRUE(watcher.watch(wanted));
  // Only the collection's own watch sees this write: it must be on the new directory, not the
  // moved one. A stop request ends the wait should it never come.
  std::atomic<bool> woken{false};
  std::thread guard([&] {
    for (int i = 0; i < 100 && !woken; ++i) std::this_thread::sleep_for(50ms);
    if (!woken) requestStop();
  });
  writeFile(root / "account" / "home" / "a.ics", "new");
  EXPECT_EQ(watcher.next(), VdirWatcher::Wake::changed);
  woken = true;
  guard.join();
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

  EXPECT_EQ(VdirWatcher::directoriesOf(snapshot, root.string(), *env_),
            (std::set<std::string>{root.string(), (root / "account").string(), (root / "account" / "home").string(),
                                   (root / "local").string(), (root / "new-account").string()}));
}

}  // namespace
}  // namespace vesp::vdir
