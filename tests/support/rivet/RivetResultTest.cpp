#include "support/rivet/RivetResult.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/RivetMatchers.h"

namespace vesp::rivet {
namespace {

using ::testing::Eq;
using ::testing::HasSubstr;
using testing::IsRivetFailure;
using testing::IsRivetSuccess;
using testing::IsRivetSuccessAndHolds;

TEST(RivetResultTest, SuccessCarriesItsValue) {
  RivetResult<int> result(42);
  EXPECT_TRUE(result.has_value());
  EXPECT_TRUE(static_cast<bool>(result));
  EXPECT_EQ(result.value(), 42);
  EXPECT_EQ(*result, 42);
  EXPECT_THAT(result, IsRivetSuccessAndHolds(Eq(42)));
}

TEST(RivetResultTest, FreshFailureCarriesItsError) {
  RivetResult<std::string> result("Not authorised to query reminders", RivetArgs{{"self", "m"}}, "VespCalendarManager",
                                  "getReminders()", 7, platform::NSError("D", 2, "d"));
  EXPECT_FALSE(result.has_value());
  EXPECT_THAT(result, IsRivetFailure(Eq("Not authorised to query reminders")));
  EXPECT_EQ(result.error().lineNumber(), 7u);
  EXPECT_EQ(result.error().frameworkError()->domain(), "D");
  EXPECT_EQ(result.value_or("fallback"), "fallback");
}

TEST(RivetResultTest, WrappingFailureHoldsTheInnerErrorAsCause) {
  RivetResult<void> inner("Inner", std::nullopt, "A", "a()", 1);
  RivetResult<void> outer(inner.error(), RivetArgs{{"self", "m"}}, "B", "b()", 2);
  EXPECT_THAT(outer, IsRivetFailure(Eq("Inner")));
  EXPECT_EQ(outer.error().functionName(), "b()");
  ASSERT_NE(outer.error().cause(), nullptr);
  EXPECT_EQ(outer.error().cause()->functionName(), "a()");
}

TEST(RivetResultTest, VoidSuccessIsTheSharedSuccessValue) {
  RivetResult<void> result = RivetResultVoidSuccess;
  EXPECT_THAT(result, IsRivetSuccess());
  EXPECT_EQ(result, RivetResultVoidSuccess);
  RivetResult<void> failure("x", std::nullopt, "F", "f()", 1);
  EXPECT_NE(failure, RivetResultVoidSuccess);
}

TEST(RivetResultTest, PrintsSuccessAndFailure) {
  std::ostringstream out;
  out << RivetResult<int>(3) << " " << RivetResultVoidSuccess;
  EXPECT_EQ(out.str(), "success(3) success");
  std::ostringstream failure;
  failure << RivetResult<int>("bad", std::nullopt, "F", "f()", 1);
  EXPECT_THAT(failure.str(), HasSubstr("failure(\"bad\""));
}

TEST(RivetResultDeathTest, ValueOfAFailureStopsTheProcessWithItsChain) {
  RivetResult<int> failure("No value here", std::nullopt, "F", "f()", 1);
  EXPECT_DEATH((void)failure.value(), "RivetResult::value\\(\\) called on a failure: \"No value here\"");
}

TEST(RivetResultDeathTest, ErrorOfASuccessStopsTheProcess) {
  RivetResult<int> success(1);
  EXPECT_DEATH((void)success.error(), "RivetResult::error\\(\\) called on a success");
  EXPECT_DEATH((void)RivetResultVoidSuccess.error(), "RivetResult::error\\(\\) called on a success");
}

}  // namespace
}  // namespace vesp::rivet
