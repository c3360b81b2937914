#include "platforms/memory/MemoryPlatform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>

namespace vesp::memory {
namespace {

using platform::Date;
using platform::EKEntityTypeEvent;
using platform::EKEntityTypeReminder;

// Waits for one completion and remembers what it received and on which thread.
template <class Value>
class Completion {
 public:
  void complete(Value value) {
    std::lock_guard lock(mutex_);
    value_ = std::move(value);
    thread_ = std::this_thread::get_id();
    ++calls_;
    arrived_.notify_all();
  }
  bool wait(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, timeout, [&] { return calls_ > 0; });
  }
  Value value() {
    std::lock_guard lock(mutex_);
    return *value_;
  }
  std::thread::id thread() {
    std::lock_guard lock(mutex_);
    return thread_;
  }
  int calls() {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::optional<Value> value_;
  std::thread::id thread_;
  int calls_ = 0;
};

using AccessCompletion = Completion<std::pair<bool, std::optional<platform::NSError>>>;
using FetchCompletion = Completion<std::optional<std::vector<std::shared_ptr<platform::EKReminder>>>>;

constexpr auto patience = std::chrono::seconds(30);

TEST(MemoryPlatformTest, AuthorisationStatusesArePerEntityTypeAndStartNotDetermined) {
  auto platform = MemoryPlatform::make();
  EXPECT_EQ(platform->authorizationStatusForEntityType(EKEntityTypeEvent), platform::EKAuthorizationStatusNotDetermined);
  platform->setAuthorizationStatus(EKEntityTypeReminder, platform::EKAuthorizationStatusDenied);
  platform->setAuthorizationStatus(EKEntityTypeEvent, 7);  // a status the library does not know
  EXPECT_EQ(platform->authorizationStatusForEntityType(EKEntityTypeReminder), platform::EKAuthorizationStatusDenied);
  EXPECT_EQ(platform->authorizationStatusForEntityType(EKEntityTypeEvent), 7);
}

TEST(MemoryPlatformTest, TheScriptedUserAnswersAccessRequestsOnAnotherThread) {
  auto platform = MemoryPlatform::make();
  platform->setAccessAnswer(EKEntityTypeEvent, MemoryAccessAnswer{true, std::nullopt, MemoryDelivery::immediately(), true});
  auto store = platform->makeEventStore();
  AccessCompletion completion;
  store->requestAccessToEntityType(EKEntityTypeEvent, [&](bool granted, std::optional<platform::NSError> error) {
    completion.complete({granted, error});
  });
  ASSERT_TRUE(completion.wait(patience));
  EXPECT_TRUE(completion.value().first);
  EXPECT_NE(completion.thread(), std::this_thread::get_id());
  EXPECT_EQ(platform->authorizationStatusForEntityType(EKEntityTypeEvent), platform::EKAuthorizationStatusAuthorized);
  auto requests = platform->world()->accessRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_TRUE(requests[0].answered);
}

TEST(MemoryPlatformTest, ADenyingUserWithAnErrorSetsTheStatusDenied) {
  auto platform = MemoryPlatform::make();
  platform->setAccessAnswer(EKEntityTypeReminder,
                            MemoryAccessAnswer{false, platform::NSError("EKErrorDomain", 29, "denied"),
                                               MemoryDelivery::immediately(), true});
  AccessCompletion completion;
  platform->makeEventStore()->requestAccessToEntityType(
      EKEntityTypeReminder, [&](bool granted, std::optional<platform::NSError> error) { completion.complete({granted, error}); });
  ASSERT_TRUE(completion.wait(patience));
  EXPECT_FALSE(completion.value().first);
  EXPECT_EQ(completion.value().second->code(), 29);
  EXPECT_EQ(platform->authorizationStatusForEntityType(EKEntityTypeReminder), platform::EKAuthorizationStatusDenied);
}

TEST(MemoryPlatformTest, AHeldAccessAnswerArrivesOnlyWhenReleased) {
  auto platform = MemoryPlatform::make();
  platform->setAccessAnswer(EKEntityTypeEvent, MemoryAccessAnswer{true, std::nullopt, MemoryDelivery::held(), false});
  AccessCompletion completion;
  platform->makeEventStore()->requestAccessToEntityType(
      EKEntityTypeEvent, [&](bool granted, std::optional<platform::NSError> error) { completion.complete({granted, error}); });
  platform->waitForDeliveries();
  EXPECT_EQ(completion.calls(), 0);
  EXPECT_FALSE(platform->world()->accessRequests()[0].answered);
  EXPECT_EQ(platform->releaseHeldDeliveries(), 1u);
  ASSERT_TRUE(completion.wait(patience));
  // This answer was scripted not to touch the status.
  EXPECT_EQ(platform->authorizationStatusForEntityType(EKEntityTypeEvent), platform::EKAuthorizationStatusNotDetermined);
}

TEST(MemoryPlatformTest, ReminderFetchesCompleteOnAnotherThreadAsScripted) {
  auto platform = MemoryPlatform::make();
  auto lists = platform->addCalendar("Lists", platform->addSource("Local"), platform::EKEntityMaskReminder);
  platform->addReminder(lists, "buy milk");
  platform->world()->scriptReminderFetches({MemoryFetchScript{MemoryDelivery::after(0.05), false},
                                            MemoryFetchScript{MemoryDelivery::immediately(), true}});
  auto store = platform->makeEventStore();
  auto predicate = store->predicateForIncompleteRemindersWithDueDateStarting(std::nullopt, std::nullopt, std::nullopt);
  FetchCompletion delayed, nil;
  auto started = std::chrono::steady_clock::now();
  std::string firstId = store->fetchRemindersMatchingPredicate(predicate, [&](auto reminders) { delayed.complete(reminders); });
  std::string secondId = store->fetchRemindersMatchingPredicate(predicate, [&](auto reminders) { nil.complete(reminders); });
  EXPECT_NE(firstId, secondId);
  ASSERT_TRUE(nil.wait(patience));
  EXPECT_FALSE(nil.value().has_value());
  ASSERT_TRUE(delayed.wait(patience));
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(50));
  ASSERT_TRUE(delayed.value().has_value());
  ASSERT_EQ(delayed.value()->size(), 1u);
  EXPECT_EQ(*(*delayed.value())[0]->title(), "buy milk");
  EXPECT_NE(delayed.thread(), std::this_thread::get_id());
  EXPECT_EQ(platform->world()->reminderFetchCount(), 2u);
}

TEST(MemoryPlatformTest, AFetchScriptedNeverToCompleteNeverCallsItsCompletion) {
  auto platform = MemoryPlatform::make();
  platform->world()->setDefaultFetchScript(MemoryFetchScript{MemoryDelivery::never(), false});
  auto store = platform->makeEventStore();
  auto called = std::make_shared<bool>(false);
  std::weak_ptr<bool> watch = called;
  store->fetchRemindersMatchingPredicate(
      store->predicateForCompletedRemindersWithCompletionDateStarting(std::nullopt, std::nullopt, std::nullopt),
      [called](auto) { *called = true; });
  called.reset();
  platform->waitForDeliveries();
  // The dropped completion was released, not kept.
  EXPECT_TRUE(watch.expired());
}

TEST(MemoryPlatformTest, StoreChangedIsPostedOncePerStoreWithThatStoreAsObject) {
  auto platform = MemoryPlatform::make();
  auto eventStore = platform->makeEventStore();
  auto reminderStore = platform->makeEventStore();
  auto observer = std::make_shared<int>(0);
  std::vector<const platform::NSObject*> objects;
  platform->defaultCenter()->addObserver(observer, "storeChanged:", [&](const platform::Notification& n) {
    objects.push_back(n.object.get());
  }, platform::EKEventStoreChangedNotification, nullptr);
  platform->postStoreChanged();
  EXPECT_THAT(objects, ::testing::ElementsAre(eventStore.get(), reminderStore.get()));
  objects.clear();
  std::static_pointer_cast<MemoryEventStore>(reminderStore)->postChanged();
  EXPECT_THAT(objects, ::testing::ElementsAre(reminderStore.get()));
}

TEST(MemoryPlatformTest, TheInformationDictionaryIsScriptable) {
  auto platform = MemoryPlatform::make();
  EXPECT_FALSE(platform->mainBundle()->objectForInfoDictionaryKey("NSRemindersUsageDescription"));
  platform->setInfoDictionaryValue("NSRemindersUsageDescription", platform::AnyObject("Lists your reminders"));
  EXPECT_TRUE(platform->mainBundle()->objectForInfoDictionaryKey("NSRemindersUsageDescription"));
}

TEST(MemoryPlatformTest, NewEventsAreUnsavedUntilTheirStoreSavesThem) {
  auto platform = MemoryPlatform::make();
  auto store = platform->makeEventStore();
  auto event = platform->eventWithEventStore(store);
  EXPECT_FALSE(event->eventIdentifier());
  EXPECT_TRUE(platform->world()->events().empty());
  event->setStartDate(Date(0));
  event->setEndDate(Date(3600));
  std::static_pointer_cast<MemoryEventStore>(store)->saveEvent(std::static_pointer_cast<MemoryEvent>(event));
  EXPECT_TRUE(event->eventIdentifier());
  EXPECT_EQ(event->occurrenceDate(), Date(0));
  EXPECT_EQ(platform->world()->events().size(), 1u);
}

TEST(MemoryPlatformTest, ManyThreadsQueryAndChangeTheWorldAtOnce) {
  auto platform = MemoryPlatform::make();
  auto calendar = platform->addCalendar("Work", platform->addSource("Local"));
  auto store = platform->makeEventStore();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        platform->addEvent(calendar, "e", Date(i * 60.0 + t), Date(i * 60.0 + t + 30));
        (void)store->eventsMatchingPredicate(store->predicateForEventsWithStartDate(Date(0), Date(1e9), std::nullopt));
        platform->setAuthorizationStatus(EKEntityTypeEvent, i % 4);
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(platform->world()->events().size(), 800u);
}

}  // namespace
}  // namespace vesp::memory
