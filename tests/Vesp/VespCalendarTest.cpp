#include "Vesp/VespCalendar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/PlatformObjects.h"

namespace vesp {
namespace {

using namespace vesp::testing;
using ::testing::ElementsAre;

TEST(VespCalendarTest, CopiesEveryAttributeOfThePlatformCalendar) {
  auto platformCalendar = makeCalendar();
  VespCalendar calendar(*platformCalendar);
  EXPECT_TRUE(calendar.allowsContentModifications());
  EXPECT_EQ(calendar.allowedEntityTypes(), VespEntityMask::event);
  EXPECT_EQ(calendar.calendarIdentifier(), "calendar-1");
  EXPECT_EQ(calendar.cgColor(), platformCalendar->CGColor());
  EXPECT_FALSE(calendar.isImmutable());
  EXPECT_FALSE(calendar.isSubscribed());
  EXPECT_EQ(calendar.source(), VespSource("source-1", VespSourceType::calDAV, "iCloud"));
  EXPECT_EQ(calendar.supportedEventAvailabilities().rawValue(), 3u);
  EXPECT_EQ(calendar.title(), "Work");
  EXPECT_EQ(calendar.type(), VespCalendarType::calDAV);
}

TEST(VespCalendarTest, ReadsThePlatformAttributesInFieldOrder) {
  auto platformCalendar = makeCalendar();
  VespCalendar calendar(*platformCalendar);
  EXPECT_THAT(platformCalendar->reads(),
              ElementsAre("allowsContentModifications", "allowedEntityTypes", "calendarIdentifier", "CGColor",
                          "isImmutable", "isSubscribed", "source", "supportedEventAvailabilities", "title", "type"));
}

TEST(VespCalendarTest, BirthdayKindIsTheFirstCaseAndSubscriptionTheLast) {
  auto fields = fullCalendarFields();
  fields.type = 4;
  EXPECT_EQ(VespCalendar(*makeCalendar(fields)).type(), VespCalendarType::birthday);
  fields.type = 3;
  EXPECT_EQ(VespCalendar(*makeCalendar(fields)).type(), VespCalendarType::subscription);
  EXPECT_EQ(static_cast<int>(VespCalendarType::birthday), 0);
  EXPECT_EQ(static_cast<int>(VespCalendarType::subscription), 4);
}

TEST(VespCalendarTest, UnknownCalendarKindsGiveLocal) {
  for (platform::EKCalendarType kind : {5, 99, -1}) EXPECT_EQ(vespCalendarType(kind), VespCalendarType::local) << kind;
}

TEST(VespCalendarTest, CalendarKindConversionIsATableLookup) {
  std::vector<std::pair<platform::EKCalendarType, VespCalendarType>> table = {
      {0, VespCalendarType::local},        {1, VespCalendarType::calDAV},   {2, VespCalendarType::exchange},
      {3, VespCalendarType::subscription}, {4, VespCalendarType::birthday},
  };
  for (const auto& [platformKind, kind] : table) EXPECT_EQ(vespCalendarType(platformKind), kind) << platformKind;
}

TEST(VespCalendarTest, EntityMaskOfThreeHoldsBothAndZeroIsEmpty) {
  auto fields = fullCalendarFields();
  fields.allowedEntityTypes = 3;
  VespCalendar both(*makeCalendar(fields));
  EXPECT_TRUE(both.allowedEntityTypes().contains(VespEntityMask::event));
  EXPECT_TRUE(both.allowedEntityTypes().contains(VespEntityMask::reminder));
  fields.allowedEntityTypes = 0;
  EXPECT_TRUE(VespCalendar(*makeCalendar(fields)).allowedEntityTypes().isEmpty());
}

TEST(VespCalendarTest, AvailabilityMasksCopyTheirBitsUnknownOnesIncluded) {
  auto fields = fullCalendarFields();
  fields.supportedEventAvailabilities = 0;
  EXPECT_TRUE(VespCalendar(*makeCalendar(fields)).supportedEventAvailabilities().isEmpty());
  fields.supportedEventAvailabilities = 15;
  auto all = VespCalendar(*makeCalendar(fields)).supportedEventAvailabilities();
  for (auto member : {VespEventAvailabilityMask::busy, VespEventAvailabilityMask::free,
                      VespEventAvailabilityMask::tentative, VespEventAvailabilityMask::unavailable})
    EXPECT_TRUE(all.contains(member));
  fields.supportedEventAvailabilities = 16;
  auto unknown = VespCalendar(*makeCalendar(fields)).supportedEventAvailabilities();
  EXPECT_EQ(unknown.rawValue(), 16u);
  for (std::uint64_t named = 0; named < 16; ++named) EXPECT_NE(unknown, VespEventAvailabilityMask(named));
}

TEST(VespCalendarTest, CalendarsDifferingOnlyInTheirSourcesTitleAreUnequal) {
  auto fields = fullCalendarFields();
  VespCalendar first(*makeCalendar(fields));
  fields.source = makeSource("Another account");
  EXPECT_NE(first, VespCalendar(*makeCalendar(fields)));
}

TEST(VespCalendarTest, CalendarsWithDistinctColourObjectsOfTheSameColourAreEqual) {
  auto fields = fullCalendarFields();
  VespCalendar first(*makeCalendar(fields));
  fields.color = platform::CGColorCreate(0.1, 0.5, 0.9);
  VespCalendar second(*makeCalendar(fields));
  EXPECT_NE(first.cgColor().get(), second.cgColor().get());
  EXPECT_EQ(first, second);
  fields.color = platform::CGColorCreate(0.1, 0.5, 1.0);
  EXPECT_NE(first, VespCalendar(*makeCalendar(fields)));
}

TEST(VespCalendarTest, MemberwiseConstructionKeepsEveryArgument) {
  auto color = platform::CGColorCreate(1, 0, 0);
  VespCalendar calendar(false, VespEntityMask::reminder, "id", color, true, true,
                        VespSource("s", VespSourceType::local, "Local"), VespEventAvailabilityMask(8), "Todo",
                        VespCalendarType::local);
  EXPECT_FALSE(calendar.allowsContentModifications());
  EXPECT_EQ(calendar.cgColor(), color);
  EXPECT_TRUE(calendar.isImmutable());
  EXPECT_TRUE(calendar.isSubscribed());
  EXPECT_EQ(calendar.title(), "Todo");
}

TEST(VespCalendarDeathTest, ACalendarWithoutColourStopsTheProcess) {
  auto fields = fullCalendarFields();
  fields.color = nullptr;
  auto calendar = makeCalendar(fields);
  EXPECT_DEATH(VespCalendar{*calendar}, "VespCalendar requires the calendar's colour");
}

TEST(VespCalendarDeathTest, MemberwiseConstructionWithoutColourStopsTheProcess) {
  EXPECT_DEATH(VespCalendar(true, VespEntityMask::event, "id", nullptr, false, false,
                            VespSource("s", VespSourceType::local, "Local"), VespEventAvailabilityMask(), "T",
                            VespCalendarType::local),
               "VespCalendar requires a colour");
}

TEST(VespCalendarDeathTest, ACalendarWithoutSourceStopsTheProcess) {
  auto fields = fullCalendarFields();
  fields.source = nullptr;
  auto calendar = makeCalendar(fields);
  EXPECT_DEATH(VespCalendar{*calendar}, "VespCalendar requires the calendar's source");
}

}  // namespace
}  // namespace vesp
