#include "Vesp/VespSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/PlatformObjects.h"

namespace vesp {
namespace {

TEST(VespSourceTest, ReadsIdentifierKindAndTitleInOrder) {
  auto platformSource = vesp::testing::makeSource("Exchange at work");
  VespSource source(*platformSource);
  EXPECT_EQ(source, VespSource("source-1", VespSourceType::calDAV, "Exchange at work"));
  EXPECT_THAT(platformSource->reads(), ::testing::ElementsAre("sourceIdentifier", "sourceType", "title"));
}

TEST(VespSourceTest, SourceKindsFollowThePlatformsOrder) {
  std::vector<std::pair<platform::EKSourceType, VespSourceType>> table = {
      {0, VespSourceType::local},    {1, VespSourceType::exchange},   {2, VespSourceType::calDAV},
      {3, VespSourceType::mobileMe}, {4, VespSourceType::subscribed}, {5, VespSourceType::birthdays},
  };
  for (const auto& [platformKind, kind] : table) EXPECT_EQ(vespSourceType(platformKind), kind) << platformKind;
}

TEST(VespSourceTest, UnknownSourceKindsGiveLocal) {
  for (platform::EKSourceType kind : {0, 6, -1}) EXPECT_EQ(vespSourceType(kind), VespSourceType::local) << kind;
}

}  // namespace
}  // namespace vesp
