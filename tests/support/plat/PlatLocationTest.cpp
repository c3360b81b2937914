#include "support/plat/PlatLocation.h"

#include <gtest/gtest.h>

namespace vesp::plat {
namespace {

TEST(PlatLocationTest, CopiesEveryAttributeOfThePlatformLocation) {
  platform::CLLocation location(52.52, 13.405, 34.0, 5.0, 3.0, platform::Date(100.0));
  PlatLocation copy(location);
  EXPECT_EQ(copy.latitude(), 52.52);
  EXPECT_EQ(copy.longitude(), 13.405);
  EXPECT_EQ(copy.altitude(), 34.0);
  EXPECT_EQ(copy.horizontalAccuracy(), 5.0);
  EXPECT_EQ(copy.verticalAccuracy(), 3.0);
  EXPECT_EQ(copy.timestamp(), platform::Date(100.0));
}

TEST(PlatLocationTest, LocationsAreEqualWhenEveryAttributeIs) {
  PlatLocation a(platform::CLLocation(1.0, 2.0));
  PlatLocation b(platform::CLLocation(1.0, 2.0));
  PlatLocation c(platform::CLLocation(1.0, 2.5));
  EXPECT_EQ(a, b);
  EXPECT_NE(a, c);
}

}  // namespace
}  // namespace vesp::plat
