#include "support/rivet/RivetEventBus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/rivet/RivetRecordingLogger.h"

namespace vesp::rivet {
namespace {

struct NumberEvent {
  int publisher = 0;
  int number = 0;
  static std::string_view identifier() { return "com.ambrel.vesp.test.number"; }
};

RivetImpetus testImpetus() { return RivetImpetus("test", std::nullopt, "RivetEventBusTest", "test()", 1); }

// A one-shot gate a thread can wait on.
class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool waitOpen(std::chrono::seconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

TEST(RivetEventBusTest, HasTheEventTypesIdentifier) {
  RivetEventBus<NumberEvent> bus(nullptr);
  EXPECT_EQ(bus.identifier(), "com.ambrel.vesp.test.number");
}

TEST(RivetEventBusTest, DeliversEveryEventExactlyOnceInPublishOrderToEachSubscriber) {
  RivetEventBus<NumberEvent> bus(std::make_shared<RivetRecordingLogger>());
  constexpr int subscribers = 4, events = 500;
  std::vector<std::vector<int>> received(subscribers);
  std::vector<RivetSubscription> subscriptions;
  for (int s = 0; s < subscribers; ++s)
    subscriptions.push_back(bus.subscribe(
        [&received, s](const NumberEvent& event, const RivetVia&) { received[s].push_back(event.number); }));
  auto impetus = testImpetus();
  for (int i = 0; i < events; ++i) bus.beginPublish(NumberEvent{0, i}, impetus);
  bus.waitUntilDelivered();
  for (int s = 0; s < subscribers; ++s) {
    ASSERT_EQ(received[s].size(), static_cast<std::size_t>(events));
    for (int i = 0; i < events; ++i) EXPECT_EQ(received[s][i], i);
  }
}

TEST(RivetEventBusTest, SubscribersAreNeverCalledInsideBeginPublish) {
  RivetEventBus<NumberEvent> bus(nullptr);
  Gate publishReturned;
  std::atomic<bool> sawGateOpen{false};
  std::thread::id deliveredOn;
  auto subscription = bus.subscribe([&](const NumberEvent&, const RivetVia&) {
    deliveredOn = std::this_thread::get_id();
    // If delivery happened inside beginPublish, the gate could not open while we wait here.
    sawGateOpen = publishReturned.waitOpen(std::chrono::seconds(10));
  });
  bus.beginPublish(NumberEvent{}, testImpetus());
  publishReturned.open();
  bus.waitUntilDelivered();
  EXPECT_TRUE(sawGateOpen.load());
  EXPECT_NE(deliveredOn, std::this_thread::get_id());
}

TEST(RivetEventBusTest, ConcurrentPublishersKeepEachPublishersOrderAndLoseNothing) {
  RivetEventBus<NumberEvent> bus(nullptr);
  constexpr int publishers = 8, perPublisher = 1000;
  std::map<int, std::vector<int>> seen;
  std::atomic<std::thread::id> deliveryThread{};
  std::atomic<bool> singleThread{true};
  auto subscription = bus.subscribe([&](const NumberEvent& event, const RivetVia&) {
    auto expected = std::thread::id{};
    auto me = std::this_thread::get_id();
    if (!deliveryThread.compare_exchange_strong(expected, me) && expected != me) singleThread = false;
    seen[event.publisher].push_back(event.number);
  });
  std::vector<std::thread> threads;
  for (int p = 0; p < publishers; ++p)
    threads.emplace_back([&, p] {
      auto impetus = testImpetus();
      for (int i = 0; i < perPublisher; ++i) bus.beginPublish(NumberEvent{p, i}, impetus);
    });
  for (auto& thread : threads) thread.join();
  bus.waitUntilDelivered();
  EXPECT_TRUE(singleThread.load());
  ASSERT_EQ(seen.size(), static_cast<std::size_t>(publishers));
  for (const auto& [publisher, numbers] : seen) {
    ASSERT_EQ(numbers.size(), static_cast<std::size_t>(perPublisher));
    for (int i = 0; i < perPublisher; ++i) EXPECT_EQ(numbers[i], i);
  }
}

TEST(RivetEventBusTest, SubscribersReceiveThePublishersVia) {
  RivetEventBus<NumberEvent> bus(nullptr);
  std::vector<RivetViaLink> provenance;
  auto subscription = bus.subscribe([&](const NumberEvent&, const RivetVia& via) { provenance = via.provenance(); });
  auto junction = testImpetus().fork(std::nullopt, std::nullopt, "Publisher", "publish()", 3);
  bus.beginPublish(NumberEvent{}, *junction);
  junction.reset();
  bus.waitUntilDelivered();
  ASSERT_EQ(provenance.size(), 2u);
  EXPECT_EQ(provenance[0].functionName, "publish()");
}

TEST(RivetEventBusTest, AnUnsubscribedSubscriberReceivesNothingMore) {
  RivetEventBus<NumberEvent> bus(nullptr);
  std::atomic<int> first{0}, second{0};
  auto subscription = bus.subscribe([&](const NumberEvent&, const RivetVia&) { ++first; });
  auto other = bus.subscribe([&](const NumberEvent&, const RivetVia&) { ++second; });
  bus.beginPublish(NumberEvent{}, testImpetus());
  bus.waitUntilDelivered();
  subscription.cancel();
  EXPECT_FALSE(subscription.active());
  EXPECT_TRUE(other.active());
  EXPECT_EQ(bus.subscriberCount(), 1u);
  bus.beginPublish(NumberEvent{}, testImpetus());
  bus.waitUntilDelivered();
  EXPECT_EQ(first.load(), 1);
  EXPECT_EQ(second.load(), 2);
}

TEST(RivetEventBusTest, UnsubscribeWaitsForADeliveryUnderWay) {
  RivetEventBus<NumberEvent> bus(nullptr);
  Gate entered, release;
  std::atomic<bool> finished{false};
  auto subscription = bus.subscribe([&](const NumberEvent&, const RivetVia&) {
    entered.open();
    release.waitOpen(std::chrono::seconds(10));
    finished = true;
  });
  bus.beginPublish(NumberEvent{}, testImpetus());
  ASSERT_TRUE(entered.waitOpen(std::chrono::seconds(10)));
  std::thread releaser([&] { release.open(); });
  subscription.cancel();
  EXPECT_TRUE(finished.load());
  releaser.join();
}

TEST(RivetEventBusTest, ASubscriberMayUnsubscribeItself) {
  RivetEventBus<NumberEvent> bus(nullptr);
  std::atomic<int> calls{0};
  RivetSubscription subscription;
  subscription = bus.subscribe([&](const NumberEvent&, const RivetVia&) {
    ++calls;
    subscription.cancel();
  });
  bus.beginPublish(NumberEvent{}, testImpetus());
  bus.beginPublish(NumberEvent{}, testImpetus());
  bus.waitUntilDelivered();
  EXPECT_EQ(calls.load(), 1);
}

TEST(RivetEventBusTest, AThrowingSubscriberIsReportedAndDeliveryGoesOn) {
  auto logger = std::make_shared<RivetRecordingLogger>();
  RivetEventBus<NumberEvent> bus(logger);
  std::atomic<int> others{0};
  auto thrower = bus.subscribe([](const NumberEvent&, const RivetVia&) { throw std::runtime_error("subscriber broke"); });
  auto counter = bus.subscribe([&](const NumberEvent&, const RivetVia&) { ++others; });
  bus.beginPublish(NumberEvent{}, testImpetus());
  bus.beginPublish(NumberEvent{}, testImpetus());
  bus.waitUntilDelivered();
  EXPECT_EQ(others.load(), 2);
  auto entries = logger->entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].error.message(), "Event bus subscriber threw");
  EXPECT_EQ(*entries[0].error.args()->find("what")->text(), "subscriber broke");
}

TEST(RivetEventBusTest, DestroyingABusDeliversWhatWasPublished) {
  std::atomic<int> delivered{0};
  RivetSubscription subscription;  // outlives the bus
  {
    RivetEventBus<NumberEvent> bus(nullptr);
    subscription = bus.subscribe([&](const NumberEvent&, const RivetVia&) { ++delivered; });
    for (int i = 0; i < 100; ++i) bus.beginPublish(NumberEvent{0, i}, testImpetus());
  }
  EXPECT_EQ(delivered.load(), 100);
}

TEST(RivetEventBusTest, ASubscriberAddedAfterAPublicationDoesNotReceiveIt) {
  RivetEventBus<NumberEvent> bus(nullptr);
  Gate release;
  std::atomic<int> late{0};
  auto early = bus.subscribe([&](const NumberEvent&, const RivetVia&) { release.waitOpen(std::chrono::seconds(10)); });
  bus.beginPublish(NumberEvent{}, testImpetus());
  auto latecomer = bus.subscribe([&](const NumberEvent&, const RivetVia&) { ++late; });
  release.open();
  bus.waitUntilDelivered();
  EXPECT_EQ(late.load(), 0);
}

TEST(RivetEventBusTest, DestroyingATokenUnsubscribes) {
  RivetEventBus<NumberEvent> bus(nullptr);
  std::atomic<int> calls{0};
  {
    auto subscription = bus.subscribe([&](const NumberEvent&, const RivetVia&) { ++calls; });
    EXPECT_TRUE(subscription.active());
    bus.beginPublish(NumberEvent{}, testImpetus());
    bus.waitUntilDelivered();
  }
  EXPECT_EQ(bus.subscriberCount(), 0u);
  bus.beginPublish(NumberEvent{}, testImpetus());
  bus.waitUntilDelivered();
  EXPECT_EQ(calls.load(), 1);
}

TEST(RivetEventBusTest, AMovedTokenKeepsTheSubscriptionAndAssigningOverOneCancelsIt) {
  RivetEventBus<NumberEvent> bus(nullptr);
  std::atomic<int> first{0}, second{0};
  auto a = bus.subscribe([&](const NumberEvent&, const RivetVia&) { ++first; });
  RivetSubscription moved = std::move(a);
  EXPECT_FALSE(a.active());
  EXPECT_TRUE(moved.active());
  moved = bus.subscribe([&](const NumberEvent&, const RivetVia&) { ++second; });
  EXPECT_EQ(bus.subscriberCount(), 1u);
  bus.beginPublish(NumberEvent{}, testImpetus());
  bus.waitUntilDelivered();
  EXPECT_EQ(first.load(), 0);
  EXPECT_EQ(second.load(), 1);
}

TEST(RivetEventBusTest, ATokenThatOutlivesItsBusIsHarmless) {
  std::atomic<int> calls{0};
  RivetSubscription subscription;
  {
    auto bus = std::make_unique<RivetEventBus<NumberEvent>>(nullptr);
    subscription = bus->subscribe([&](const NumberEvent&, const RivetVia&) { ++calls; });
    bus->beginPublish(NumberEvent{}, testImpetus());
  }
  EXPECT_EQ(calls.load(), 1);
  EXPECT_FALSE(subscription.active());
  subscription.cancel();
  subscription.cancel();
}

}  // namespace
}  // namespace vesp::rivet
