#include "Vesp/VespRecurrenceRule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/PlatformObjects.h"

namespace vesp {
namespace {

using namespace vesp::testing;
using ::testing::ElementsAre;
constexpr std::uint64_t minusOne = 18446744073709551615ull;

TEST(VespRecurrenceRuleTest, ReadsEveryAttributeInFieldOrder) {
  auto platformRule = makeRule();
  VespRecurrenceRule rule(*platformRule);
  EXPECT_EQ(rule.calendarIdentifier(), "gregorian");
  EXPECT_EQ(rule.firstDayOfTheWeek(), 2);
  EXPECT_EQ(rule.frequency(), VespRecurrenceFrequency::monthly);
  EXPECT_EQ(rule.interval(), 1);
  EXPECT_THAT(*rule.monthsOfTheYear(), ElementsAre(1u, 6u));
  EXPECT_THAT(*rule.weeksOfTheYear(), ElementsAre(1u, 52u));
  EXPECT_THAT(*rule.daysOfTheYear(), ElementsAre(1u, 100u));
  EXPECT_THAT(platformRule->reads(),
              ElementsAre("calendarIdentifier", "daysOfTheMonth", "daysOfTheWeek", "daysOfTheYear", "firstDayOfTheWeek",
                          "frequency", "interval", "monthsOfTheYear", "recurrenceEnd", "setPositions", "weeksOfTheYear"));
}

TEST(VespRecurrenceRuleTest, AbsentAndEmptyNumberListsAreDifferentRules) {
  auto fields = fullRuleFields();
  fields.daysOfTheMonth.reset();
  VespRecurrenceRule absent(*makeRule(fields));
  fields.daysOfTheMonth.emplace();
  VespRecurrenceRule empty(*makeRule(fields));
  EXPECT_FALSE(absent.daysOfTheMonth());
  ASSERT_TRUE(empty.daysOfTheMonth());
  EXPECT_TRUE(empty.daysOfTheMonth()->empty());
  EXPECT_NE(absent, empty);
}

TEST(VespRecurrenceRuleTest, NegativeEntriesAreKeptAsTheirTwosComplement) {
  VespRecurrenceRule rule(*makeRule());
  EXPECT_THAT(*rule.daysOfTheMonth(), ElementsAre(1u, 15u, minusOne));
  EXPECT_THAT(*rule.setPositions(), ElementsAre(minusOne));
}

TEST(VespRecurrenceRuleTest, DaysOfTheWeekKeepTheirWeekNumbers) {
  VespRecurrenceRule rule(*makeRule());
  EXPECT_THAT(*rule.daysOfTheWeek(), ElementsAre(VespRecurrenceDayOfWeek(VespWeekday::monday, 0),
                                                 VespRecurrenceDayOfWeek(VespWeekday::friday, -1)));
}

TEST(VespRecurrenceRuleTest, WeekdaysOneToSevenAreSundayToSaturday) {
  EXPECT_EQ(vespWeekday(1), VespWeekday::sunday);
  EXPECT_EQ(vespWeekday(2), VespWeekday::monday);
  EXPECT_EQ(vespWeekday(7), VespWeekday::saturday);
}

TEST(VespRecurrenceRuleTest, UnknownFrequenciesAreDaily) {
  EXPECT_EQ(vespRecurrenceFrequency(4), VespRecurrenceFrequency::daily);
  EXPECT_EQ(vespRecurrenceFrequency(-1), VespRecurrenceFrequency::daily);
  EXPECT_EQ(vespRecurrenceFrequency(1), VespRecurrenceFrequency::weekly);
  EXPECT_EQ(vespRecurrenceFrequency(3), VespRecurrenceFrequency::yearly);
}

TEST(VespRecurrenceRuleTest, RecurrenceEndsByNothingByDateAndByCount) {
  auto fields = fullRuleFields();
  fields.recurrenceEnd = nullptr;
  EXPECT_FALSE(VespRecurrenceRule(*makeRule(fields)).recurrenceEnd());
  fields.recurrenceEnd = std::make_shared<MemoryRecurrenceEnd>(MemoryRecurrenceEndFields{platform::Date(99), 0});
  auto byDate = VespRecurrenceRule(*makeRule(fields)).recurrenceEnd();
  EXPECT_EQ(byDate, VespRecurrenceEnd(platform::Date(99), 0));
  fields.recurrenceEnd = std::make_shared<MemoryRecurrenceEnd>(MemoryRecurrenceEndFields{std::nullopt, 7});
  auto byCount = VespRecurrenceRule(*makeRule(fields)).recurrenceEnd();
  EXPECT_FALSE(byCount->endDate());
  EXPECT_EQ(byCount->occurrenceCount(), 7);
}

TEST(VespRecurrenceRuleTest, FirstDayOfTheWeekZeroIsKept) {
  auto fields = fullRuleFields();
  fields.firstDayOfTheWeek = 0;
  EXPECT_EQ(VespRecurrenceRule(*makeRule(fields)).firstDayOfTheWeek(), 0);
}

TEST(VespRecurrenceRuleDeathTest, AWeekdayOfZeroOrEightStopsTheProcess) {
  EXPECT_DEATH(vespWeekday(0), "Unexpected enumeration value: EKWeekday raw value 0");
  EXPECT_DEATH(vespWeekday(8), "Unexpected enumeration value: EKWeekday raw value 8");
}

TEST(VespRecurrenceRuleDeathTest, AnInvalidWeekdayInsideARuleStopsTheProcess) {
  auto fields = fullRuleFields();
  fields.daysOfTheWeek = std::vector<std::shared_ptr<platform::EKRecurrenceDayOfWeek>>{
      std::make_shared<MemoryRecurrenceDayOfWeek>(MemoryRecurrenceDayOfWeekFields{8, 0})};
  auto rule = makeRule(fields);
  EXPECT_DEATH(VespRecurrenceRule{*rule}, "EKWeekday raw value 8");
}

TEST(VespRecurrenceRuleDeathTest, ANonNumberInANumberListStopsTheProcess) {
  auto fields = fullRuleFields();
  fields.setPositions = std::vector<platform::AnyObject>{platform::AnyObject(platform::NSNumber(1)), platform::AnyObject("2")};
  auto rule = makeRule(fields);
  EXPECT_DEATH(VespRecurrenceRule{*rule}, "Type mismatch .*expected NSNumber, found NSString");
}

}  // namespace
}  // namespace vesp
