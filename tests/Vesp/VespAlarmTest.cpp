#include "Vesp/VespAlarm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Vesp/VespAlarmType.h"
#include "tests/support/PlatformObjects.h"

namespace vesp {
namespace {

using namespace vesp::testing;

TEST(VespStructuredLocationTest, ALocationWithoutCoordinatesHasNoGeoLocation) {
  MemoryStructuredLocation platformLocation(MemoryStructuredLocationFields{std::nullopt, 50.0, "Park"});
  VespStructuredLocation location(platformLocation);
  EXPECT_EQ(location, VespStructuredLocation(std::nullopt, 50.0, "Park"));
  EXPECT_EQ(location, VespStructuredLocation(MemoryStructuredLocation(MemoryStructuredLocationFields{std::nullopt, 50.0, "Park"})));
  EXPECT_NE(location, VespStructuredLocation(plat::PlatLocation(platform::CLLocation(1, 2)), 50.0, "Park"));
  EXPECT_THAT(platformLocation.reads(), ::testing::ElementsAre("geoLocation", "radius", "title"));
}

TEST(VespStructuredLocationTest, LocationsDifferingOnlyInCoordinatesAreUnequal) {
  VespStructuredLocation a(plat::PlatLocation(platform::CLLocation(1, 2)), 10.0, "Here");
  VespStructuredLocation b(plat::PlatLocation(platform::CLLocation(1, 3)), 10.0, "Here");
  EXPECT_NE(a, b);
  EXPECT_EQ(a.radius(), b.radius());
  EXPECT_EQ(a.title(), b.title());
}

TEST(VespAlarmTest, ProximityOutsideTheTableIsNone) {
  EXPECT_EQ(vespAlarmProximity(3), VespAlarmProximity::none);
  EXPECT_EQ(vespAlarmProximity(-1), VespAlarmProximity::none);
  EXPECT_EQ(vespAlarmProximity(1), VespAlarmProximity::enter);
  EXPECT_EQ(vespAlarmProximity(2), VespAlarmProximity::leave);
}

TEST(VespAlarmTest, AlarmTypeOutsideTheTableIsDisplay) {
  EXPECT_EQ(vespAlarmType(4), VespAlarmType::display);
  EXPECT_EQ(vespAlarmType(1), VespAlarmType::audio);
  EXPECT_EQ(vespAlarmType(2), VespAlarmType::procedure);
  EXPECT_EQ(vespAlarmType(3), VespAlarmType::email);
}

TEST(VespAlarmTest, AnAbsoluteAlarmKeepsItsRelativeOffsetAsReported) {
  MemoryAlarm platformAlarm(MemoryAlarmFields{platform::Date(500), 0, 0.0, nullptr, 0});
  VespAlarm alarm(platformAlarm);
  EXPECT_EQ(alarm.absoluteDate(), platform::Date(500));
  EXPECT_EQ(alarm.relativeOffset(), 0.0);
  MemoryAlarm odd(MemoryAlarmFields{platform::Date(500), 0, -300.0, nullptr, 0});
  EXPECT_EQ(VespAlarm(odd).relativeOffset(), -300.0);
  EXPECT_THAT(platformAlarm.reads(),
              ::testing::ElementsAre("absoluteDate", "proximity", "relativeOffset", "structuredLocation"));
}

TEST(VespAlarmTest, AnAlarmWithoutAPlaceStillConvertsItsProximity) {
  MemoryAlarm platformAlarm(MemoryAlarmFields{std::nullopt, 2, 0.0, nullptr, 0});
  VespAlarm alarm(platformAlarm);
  EXPECT_FALSE(alarm.structuredLocation());
  EXPECT_EQ(alarm.proximity(), VespAlarmProximity::leave);
}

TEST(VespAlarmTest, AProximityAlarmCarriesItsPlace) {
  MemoryAlarm platformAlarm(MemoryAlarmFields{std::nullopt, 1, 0.0, makeLocation("Home"), 0});
  VespAlarm alarm(platformAlarm);
  ASSERT_TRUE(alarm.structuredLocation());
  EXPECT_EQ(alarm.structuredLocation()->title(), "Home");
  EXPECT_EQ(alarm.structuredLocation()->radius(), 150.0);
}

}  // namespace
}  // namespace vesp
