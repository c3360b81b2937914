#include "support/platform/Platform.h"

#include <gtest/gtest.h>

#include "platforms/memory/MemoryPlatform.h"

namespace vesp::platform {
namespace {

TEST(PlatformTest, TheInstalledDefaultIsWhatDefaultAnswers) {
  auto memory = vesp::memory::MemoryPlatform::make();
  Platform::installDefault(memory);
  EXPECT_TRUE(Platform::hasDefault());
  EXPECT_EQ(Platform::Default().get(), memory.get());
  Platform::installDefault(nullptr);
  EXPECT_FALSE(Platform::hasDefault());
}

// A wrapper that flips one answer and forwards the rest.
class DeniedEvents : public PlatformWrapper {
 public:
  using PlatformWrapper::PlatformWrapper;
  EKAuthorizationStatus authorizationStatusForEntityType(EKEntityType entityType) override {
    return entityType == EKEntityTypeEvent ? EKAuthorizationStatusDenied
                                           : PlatformWrapper::authorizationStatusForEntityType(entityType);
  }
};

TEST(PlatformTest, AWrapperOverridesOneCallAndForwardsEveryOther) {
  auto memory = vesp::memory::MemoryPlatform::make();
  memory->setAuthorizationStatus(EKEntityTypeEvent, EKAuthorizationStatusAuthorized);
  memory->setAuthorizationStatus(EKEntityTypeReminder, EKAuthorizationStatusAuthorized);
  DeniedEvents wrapper(memory);
  EXPECT_EQ(wrapper.authorizationStatusForEntityType(EKEntityTypeEvent), EKAuthorizationStatusDenied);
  EXPECT_EQ(wrapper.authorizationStatusForEntityType(EKEntityTypeReminder), EKAuthorizationStatusAuthorized);
  EXPECT_EQ(wrapper.defaultCenter().get(), memory->defaultCenter().get());
  EXPECT_EQ(wrapper.mainBundle().get(), memory->mainBundle().get());
  auto store = wrapper.makeEventStore();
  EXPECT_NE(store, nullptr);
  EXPECT_EQ(memory->stores().size(), 1u);
  EXPECT_NE(wrapper.dispatch_group_create(), nullptr);
}

TEST(PlatformTest, EachStoreIsASeparateConnection) {
  auto memory = vesp::memory::MemoryPlatform::make();
  auto a = memory->makeEventStore();
  auto b = memory->makeEventStore();
  EXPECT_NE(a.get(), b.get());
}

TEST(PlatformDeathTest, DefaultWithoutAnInstalledPlatformStopsTheProcess) {
  EXPECT_DEATH(
      {
        Platform::installDefault(nullptr);
        (void)Platform::Default();
      },
      "No default platform is installed");
}

TEST(PlatformDeathTest, AWrapperWithoutATargetStopsTheProcess) {
  EXPECT_DEATH(PlatformWrapper(nullptr), "PlatformWrapper made without a target platform");
}

}  // namespace
}  // namespace vesp::platform
