// GoogleTest matchers for RivetResult.
#pragma once

#include <gmock/gmock.h>

#include "support/rivet/RivetResult.h"

namespace vesp::rivet::testing {

// The result is a success.
MATCHER(IsRivetSuccess, negation ? "is a failure" : "is a success") {
  if (arg.has_value()) return true;
  *result_listener << "failure: " << arg.error().description();
  return false;
}

// The result is a success whose value matches `matcher`.
MATCHER_P(IsRivetSuccessAndHolds, matcher, "is a success holding a matching value") {
  if (!arg.has_value()) {
    *result_listener << "failure: " << arg.error().description();
    return false;
  }
  return ::testing::ExplainMatchResult(matcher, arg.value(), result_listener);
}

// The result is a failure whose message matches `matcher`.
MATCHER_P(IsRivetFailure, matcher, "is a failure whose message " + ::testing::DescribeMatcher<std::string>(matcher, negation)) {
  if (arg.has_value()) {
    *result_listener << "is a success";
    return false;
  }
  return ::testing::ExplainMatchResult(matcher, arg.error().message(), result_listener);
}

}  // namespace vesp::rivet::testing
