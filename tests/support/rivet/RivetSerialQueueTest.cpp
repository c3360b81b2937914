#include "support/rivet/RivetSerialQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace vesp::rivet {
namespace {

TEST(RivetSerialQueueTest, RunsTasksOneAtATimeInSubmissionOrder) {
  std::vector<int> order;
  {
    RivetSerialQueue queue("test");
    for (int i = 0; i < 100; ++i) queue.async([&order, i] { order.push_back(i); });
    queue.sync([] {});
    ASSERT_EQ(order.size(), 100u);
  }
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
}

TEST(RivetSerialQueueTest, SyncRunsOnTheQueueThreadAndBlocksUntilDone) {
  RivetSerialQueue queue("test");
  std::thread::id ranOn;
  bool inside = false;
  queue.sync([&] {
    ranOn = std::this_thread::get_id();
    inside = queue.isCurrent();
  });
  EXPECT_NE(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(inside);
  EXPECT_FALSE(queue.isCurrent());
}

TEST(RivetSerialQueueTest, DestructionRunsTheTasksAlreadySubmitted) {
  std::atomic<int> ran{0};
  {
    RivetSerialQueue queue("test");
    for (int i = 0; i < 50; ++i) queue.async([&] { ++ran; });
  }
  EXPECT_EQ(ran.load(), 50);
}

TEST(RivetSerialQueueTest, AQueueDestroyedFromItsOwnTaskLetsItsThreadEnd) {
  auto queue = std::make_unique<RivetSerialQueue>("self");
  std::mutex mutex;
  std::condition_variable done;
  bool destroyed = false;
  RivetSerialQueue* raw = queue.get();
  raw->async([&, owned = std::shared_ptr<RivetSerialQueue>(std::move(queue))]() mutable {
    owned.reset();
    std::lock_guard lock(mutex);
    destroyed = true;
    done.notify_one();
  });
  std::unique_lock lock(mutex);
  done.wait(lock, [&] { return destroyed; });
}

TEST(RivetSerialQueueDeathTest, SyncFromItsOwnQueueStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        RivetSerialQueue queue("own");
        queue.sync([&] { queue.sync([] {}); });
      },
      "RivetSerialQueue::sync called from its own queue 'own'");
}

}  // namespace
}  // namespace vesp::rivet
