#include "support/platform/Date.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <unordered_set>

namespace vesp::platform {
namespace {

TEST(DateTest, CountsSecondsFromTheReferenceDate) {
  EXPECT_EQ(Date().timeIntervalSinceReferenceDate(), 0.0);
  EXPECT_EQ(Date::fromTimeIntervalSince1970(978307200.0), Date());
  EXPECT_EQ(Date(60.0).timeIntervalSince1970(), 978307260.0);
  EXPECT_EQ(Date(10.0).addingTimeInterval(5.0), Date(15.0));
  EXPECT_EQ(Date(10.0).timeIntervalSince(Date(4.0)), 6.0);
}

TEST(DateTest, PositiveAndNegativeZeroAreTheSameInstantAndHashAlike) {
  Date positive(0.0), negative(-0.0);
  EXPECT_EQ(positive, negative);
  EXPECT_EQ(std::hash<Date>{}(positive), std::hash<Date>{}(negative));
  std::unordered_set<Date> set{positive, negative};
  EXPECT_EQ(set.size(), 1u);
}

TEST(DateTest, OrdersByInstant) {
  EXPECT_LT(Date(1.0), Date(2.0));
  EXPECT_GT(Date(-1.0), Date(-2.0));
}

TEST(DateTest, RendersAsIso8601InUtc) {
  EXPECT_EQ(Date().iso8601(), "2001-01-01T00:00:00Z");
  EXPECT_EQ(Date::fromTimeIntervalSince1970(1795305600.0).iso8601(), "2026-11-22T00:00:00Z");
  EXPECT_EQ(Date(-1.5).iso8601(), "2000-12-31T23:59:58.5Z");
  EXPECT_EQ(Date(std::nan("")).iso8601(), "nan");
}

TEST(DateTest, NowIsAfterTheDayThisTestWasWritten) {
  EXPECT_GT(Date::now(), Date::fromTimeIntervalSince1970(1763769600.0));
}

}  // namespace
}  // namespace vesp::platform
