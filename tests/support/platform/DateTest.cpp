#include "support/platform/Date.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <random>
#include <unordered_set>
#include <vector>

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

// Against the C library's own calendar (gmtime_r), over every year from 0000 to 9999 and the
// seconds of a day, and either side of the four-digit years.
TEST(DateTest, RendersTheInstantsOfTenThousandYearsAsTheCLibrarysCalendarDoes) {
  std::mt19937_64 random(20261128);
  const double first = -62167219200.0, last = 253402300799.0;  // 0000-01-01 and 9999-12-31T23:59:59 since 1970
  std::vector<double> instants = {first, last, 0.0, -1.0, 951782400.0 /* 2000-02-29 */, 4107542400.0 /* 2100-03-01 */};
  for (int i = 0; i < 20000; ++i)
    instants.push_back(std::floor(std::uniform_real_distribution<double>(first, last)(random)));
  for (double since1970 : instants) {
    const std::time_t seconds = static_cast<std::time_t>(since1970);
    std::tm civil{};
    ASSERT_NE(::gmtime_r(&seconds, &civil), nullptr);
    char expected[64];
    std::snprintf(expected, sizeof expected, "%04d-%02d-%02dT%02d:%02d:%02dZ", civil.tm_year + 1900, civil.tm_mon + 1,
                  civil.tm_mday, civil.tm_hour, civil.tm_min, civil.tm_sec);
    ASSERT_EQ(Date::fromTimeIntervalSince1970(since1970).iso8601(), expected) << since1970;
  }
  EXPECT_EQ(Date::fromTimeIntervalSince1970(first - 1.0).iso8601(), "-001-12-31T23:59:59Z");
  EXPECT_EQ(Date::fromTimeIntervalSince1970(last + 1.0).iso8601(), "10000-01-01T00:00:00Z");
  EXPECT_EQ(Date::fromTimeIntervalSince1970(last + 0.25).iso8601(), "9999-12-31T23:59:59.25Z");
}

TEST(DateTest, NowIsAfterTheDayThisTestWasWritten) {
  EXPECT_GT(Date::now(), Date::fromTimeIntervalSince1970(1763769600.0));
}

}  // namespace
}  // namespace vesp::platform
