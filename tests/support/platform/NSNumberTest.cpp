#include "support/platform/NSNumber.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace vesp::platform {
namespace {

TEST(NSNumberTest, NegativeIntegersWrapToTheirTwosComplementAsUnsigned) {
  EXPECT_EQ(NSNumber(-1).unsignedIntegerValue(), 18446744073709551615ull);
  EXPECT_EQ(NSNumber(-2).unsignedIntegerValue(), 18446744073709551614ull);
  EXPECT_EQ(NSNumber(15).unsignedIntegerValue(), 15u);
}

TEST(NSNumberTest, ReadsAsDoubleAndInteger) {
  EXPECT_EQ(NSNumber(1800).doubleValue(), 1800.0);
  EXPECT_EQ(NSNumber(-5.75).integerValue(), -5);
  EXPECT_EQ(NSNumber(2.5).doubleValue(), 2.5);
  EXPECT_EQ(NSNumber(true).integerValue(), 1);
  EXPECT_EQ(NSNumber(std::nan("")).integerValue(), 0);
  EXPECT_EQ(NSNumber(1e300).integerValue(), std::numeric_limits<std::int64_t>::max());
}

TEST(NSNumberTest, LargeUnsignedValuesStayExact) {
  EXPECT_EQ(NSNumber(18446744073709551615ull).unsignedIntegerValue(), 18446744073709551615ull);
}

}  // namespace
}  // namespace vesp::platform
