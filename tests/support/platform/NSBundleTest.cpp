#include "support/platform/NSBundle.h"

#include <gtest/gtest.h>

namespace vesp::platform {
namespace {

TEST(NSBundleTest, AnswersOnlyForKeysItDeclares) {
  NSBundle bundle;
  EXPECT_FALSE(bundle.objectForInfoDictionaryKey("NSCalendarsUsageDescription"));
  bundle.setObjectForInfoDictionaryKey("NSCalendarsUsageDescription", AnyObject("Shows your week"));
  ASSERT_TRUE(bundle.objectForInfoDictionaryKey("NSCalendarsUsageDescription"));
  EXPECT_EQ(*bundle.objectForInfoDictionaryKey("NSCalendarsUsageDescription")->string(), "Shows your week");
  bundle.setObjectForInfoDictionaryKey("NSCalendarsUsageDescription", std::nullopt);
  EXPECT_FALSE(bundle.objectForInfoDictionaryKey("NSCalendarsUsageDescription"));
}

}  // namespace
}  // namespace vesp::platform
