#include "support/platform/EKEventStoreWrapper.h"

#include <gtest/gtest.h>

#include "platforms/memory/MemoryPlatform.h"

namespace vesp::platform {
namespace {

using vesp::memory::MemoryEventStore;
using vesp::memory::MemoryPlatform;

class EKEventStoreWrapperTest : public ::testing::Test {
 protected:
  std::shared_ptr<MemoryPlatform> memory = MemoryPlatform::make();
  std::shared_ptr<EKEventStore> inner = memory->makeEventStore();

  // Counts the change notifications posted with `store` as object.
  std::shared_ptr<int> countChangesOf(const std::shared_ptr<EKEventStore>& store) {
    auto count = std::make_shared<int>(0);
    memory->defaultCenter()->addObserver(count, "changed:", [count](const Notification&) { ++*count; },
                                         EKEventStoreChangedNotification, store.get());
    return count;
  }
};

TEST_F(EKEventStoreWrapperTest, ForwardsQueriesToItsTarget) {
  auto calendar = memory->addCalendar("Work", memory->addSource("Local"));
  memory->addEvent(calendar, "Standup", Date(0), Date(900));
  EKEventStoreWrapper wrapper(inner);
  EXPECT_EQ(wrapper.calendarsForEntityType(EKEntityTypeEvent).size(), 1u);
  auto events = wrapper.eventsMatchingPredicate(wrapper.predicateForEventsWithStartDate(Date(0), Date(60), std::nullopt));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]->title(), "Standup");
}

TEST_F(EKEventStoreWrapperTest, InnermostUnwrapsEveryLayer) {
  auto once = std::make_shared<EKEventStoreWrapper>(inner);
  auto twice = std::make_shared<EKEventStoreWrapper>(once);
  EXPECT_EQ(EKEventStoreWrapper::innermost(twice), inner);
  EXPECT_EQ(EKEventStoreWrapper::innermost(inner), inner);
  EXPECT_EQ(EKEventStoreWrapper::innermost(nullptr), nullptr);
}

TEST_F(EKEventStoreWrapperTest, ForwardedChangesArePostedAsTheWrappersOwn) {
  auto wrapper = std::make_shared<EKEventStoreWrapper>(inner);
  auto silent = std::make_shared<EKEventStoreWrapper>(inner);
  auto wrapperChanges = countChangesOf(wrapper);
  auto silentChanges = countChangesOf(silent);
  wrapper->forwardChanges(memory->defaultCenter());
  std::static_pointer_cast<MemoryEventStore>(inner)->postChanged();
  EXPECT_EQ(*wrapperChanges, 1);
  EXPECT_EQ(*silentChanges, 0);  // without forwardChanges, observers of a wrapper hear nothing
}

TEST_F(EKEventStoreWrapperTest, ADestroyedWrapperForwardsNothing) {
  auto wrapper = std::make_shared<EKEventStoreWrapper>(inner);
  wrapper->forwardChanges(memory->defaultCenter());
  auto everything = std::make_shared<int>(0);
  memory->defaultCenter()->addObserver(everything, "any:", [everything](const Notification&) { ++*everything; },
                                       EKEventStoreChangedNotification, nullptr);
  wrapper.reset();
  std::static_pointer_cast<MemoryEventStore>(inner)->postChanged();
  EXPECT_EQ(*everything, 1);  // the target's own notification only
}

TEST(EKEventStoreWrapperDeathTest, AWrapperNeedsATarget) {
  EXPECT_DEATH(EKEventStoreWrapper(nullptr), "EKEventStoreWrapper made without a target store");
}

}  // namespace
}  // namespace vesp::platform
