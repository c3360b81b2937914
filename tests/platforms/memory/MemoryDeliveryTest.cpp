#include "platforms/memory/MemoryDelivery.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <thread>
#include <vector>

namespace vesp::memory {
namespace {

// Counts deliveries and lets a test wait for a number of them.
class Arrivals {
 public:
  void arrive(int id) {
    std::lock_guard lock(mutex_);
    order_.push_back(id);
    thread_ = std::this_thread::get_id();
    changed_.notify_all();
  }
  bool waitFor(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return order_.size() >= count; });
  }
  std::vector<int> order() {
    std::lock_guard lock(mutex_);
    return order_;
  }
  std::thread::id thread() {
    std::lock_guard lock(mutex_);
    return thread_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<int> order_;
  std::thread::id thread_;
};

TEST(MemoryDeliveryTest, ImmediateDeliveriesRunInOrderOnTheDeliveryThread) {
  MemoryDeliveryThread thread;
  Arrivals arrivals;
  for (int i = 0; i < 10; ++i) thread.deliver(MemoryDelivery::immediately(), [&, i] { arrivals.arrive(i); });
  thread.waitUntilIdle();
  EXPECT_EQ(arrivals.order(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_NE(arrivals.thread(), std::this_thread::get_id());
}

TEST(MemoryDeliveryTest, DelayedDeliveriesArriveNoEarlierThanTheirDelayAndInDueOrder) {
  MemoryDeliveryThread thread;
  Arrivals arrivals;
  auto started = std::chrono::steady_clock::now();
  thread.deliver(MemoryDelivery::after(0.10), [&] { arrivals.arrive(2); });
  thread.deliver(MemoryDelivery::after(0.05), [&] { arrivals.arrive(1); });
  ASSERT_TRUE(arrivals.waitFor(2, std::chrono::seconds(30)));
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(100));
  EXPECT_EQ(arrivals.order(), (std::vector<int>{1, 2}));
}

TEST(MemoryDeliveryTest, HeldDeliveriesWaitForTheirRelease) {
  MemoryDeliveryThread thread;
  Arrivals arrivals;
  thread.deliver(MemoryDelivery::held(), [&] { arrivals.arrive(1); });
  thread.deliver(MemoryDelivery::held(), [&] { arrivals.arrive(2); });
  thread.waitUntilIdle();
  EXPECT_TRUE(arrivals.order().empty());
  EXPECT_EQ(thread.heldCount(), 2u);
  EXPECT_EQ(thread.releaseHeld(), 2u);
  ASSERT_TRUE(arrivals.waitFor(2, std::chrono::seconds(30)));
  EXPECT_EQ(arrivals.order(), (std::vector<int>{1, 2}));
}

TEST(MemoryDeliveryTest, NeverDeliveriesAreDroppedAndReleaseTheirTask) {
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  MemoryDeliveryThread thread;
  thread.deliver(MemoryDelivery::never(), [token] { ++*token; });
  token.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(thread.heldCount(), 0u);
}

TEST(MemoryDeliveryTest, DestructionDropsUndeliveredTasks) {
  std::atomic<int> ran{0};
  {
    MemoryDeliveryThread thread;
    thread.deliver(MemoryDelivery::after(3600), [&] { ++ran; });
    thread.deliver(MemoryDelivery::held(), [&] { ++ran; });
  }
  EXPECT_EQ(ran.load(), 0);
}

}  // namespace
}  // namespace vesp::memory
