#include "support/platform/NSNotificationCenter.h"

#include <gtest/gtest.h>

#include <thread>

namespace vesp::platform {
namespace {

class Poster : public NSObject {};

struct Observer {
  std::vector<std::string> received;
  std::thread::id thread;
};

TEST(NSNotificationCenterTest, CallsMatchingObserversOnThePostingThreadBeforeReturning) {
  NSNotificationCenter center;
  auto poster = std::make_shared<Poster>();
  auto observer = std::make_shared<Observer>();
  center.addObserver(observer, "changed:", [raw = observer.get()](const Notification& n) {
    raw->received.push_back(n.name);
    raw->thread = std::this_thread::get_id();
  }, "Changed", poster.get());
  std::thread([&] { center.postNotificationName("Changed", poster); }).join();
  ASSERT_EQ(observer->received.size(), 1u);
  EXPECT_NE(observer->thread, std::this_thread::get_id());
  center.postNotificationName("Changed", poster);
  EXPECT_EQ(observer->received.size(), 2u);
  EXPECT_EQ(observer->thread, std::this_thread::get_id());
}

TEST(NSNotificationCenterTest, MatchesByNameAndByObjectIdentity) {
  NSNotificationCenter center;
  auto mine = std::make_shared<Poster>();
  auto other = std::make_shared<Poster>();
  auto observer = std::make_shared<Observer>();
  center.addObserver(observer, "changed:", [raw = observer.get()](const Notification& n) {
    raw->received.push_back(n.name);
  }, "Changed", mine.get());
  center.postNotificationName("Changed", other);
  center.postNotificationName("Other", mine);
  EXPECT_TRUE(observer->received.empty());
  center.postNotificationName("Changed", mine);
  EXPECT_EQ(observer->received.size(), 1u);
}

TEST(NSNotificationCenterTest, AnObserverDestroyedWithoutRemovingItselfIsSkipped) {
  NSNotificationCenter center;
  auto poster = std::make_shared<Poster>();
  int calls = 0;
  {
    auto observer = std::make_shared<Observer>();
    center.addObserver(observer, "changed:", [&](const Notification&) { ++calls; }, "Changed", poster.get());
    center.postNotificationName("Changed", poster);
  }
  center.postNotificationName("Changed", poster);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(center.observations().empty());
}

TEST(NSNotificationCenterTest, TheCentreDoesNotKeepItsObserversAlive) {
  NSNotificationCenter center;
  auto observer = std::make_shared<Observer>();
  std::weak_ptr<Observer> watch = observer;
  center.addObserver(observer, "changed:", [](const Notification&) {}, std::nullopt, nullptr);
  observer.reset();
  EXPECT_TRUE(watch.expired());
}

TEST(NSNotificationCenterTest, RemovingAnObserverForAnObjectLeavesItsOtherRegistrations) {
  NSNotificationCenter center;
  auto a = std::make_shared<Poster>();
  auto b = std::make_shared<Poster>();
  auto observer = std::make_shared<Observer>();
  center.addObserver(observer, "aChanged:", [raw = observer.get()](const Notification&) { raw->received.push_back("a"); },
                     "Changed", a.get());
  center.addObserver(observer, "bChanged:", [raw = observer.get()](const Notification&) { raw->received.push_back("b"); },
                     "Changed", b.get());
  center.removeObserver(observer.get(), "Changed", a.get());
  center.postNotificationName("Changed", a);
  center.postNotificationName("Changed", b);
  EXPECT_EQ(observer->received, std::vector<std::string>{"b"});
  auto observations = center.observations();
  ASSERT_EQ(observations.size(), 1u);
  EXPECT_EQ(observations[0].selectorName, "bChanged:");
  EXPECT_EQ(observations[0].object, b.get());
}

TEST(NSNotificationCenterTest, AnObserverMayRemoveItselfWhileBeingCalled) {
  NSNotificationCenter center;
  auto poster = std::make_shared<Poster>();
  auto observer = std::make_shared<Observer>();
  int calls = 0;
  center.addObserver(observer, "changed:", [&](const Notification&) {
    ++calls;
    center.removeObserver(observer.get(), std::nullopt, nullptr);
  }, std::nullopt, nullptr);
  center.postNotificationName("Changed", poster);
  center.postNotificationName("Changed", poster);
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace vesp::platform
