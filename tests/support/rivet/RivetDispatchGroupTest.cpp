#include "support/rivet/RivetDispatchGroup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "tests/support/RivetMatchers.h"

namespace vesp::rivet {
namespace {

using ::testing::Eq;
using testing::IsRivetFailure;
using testing::IsRivetSuccess;

TEST(RivetDispatchGroupTest, AnEmptyGroupWaitsForNothing) {
  RivetDispatchGroup group;
  EXPECT_THAT(group.wait(0.0), IsRivetSuccess());
  EXPECT_THAT(group.wait(std::nullopt), IsRivetSuccess());
}

TEST(RivetDispatchGroupTest, WaitFailsAfterItsTimeOut) {
  RivetDispatchGroup group;
  group.enter();
  auto started = std::chrono::steady_clock::now();
  auto result = group.wait(0.05);
  auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_THAT(result, IsRivetFailure(Eq("Dispatch group wait timed out")));
  EXPECT_EQ(result.error().fileName(), "RivetDispatchGroup");
  EXPECT_EQ(result.error().functionName(), "wait(timeout:)");
  EXPECT_GE(waited, std::chrono::milliseconds(50));
  group.leave();
}

TEST(RivetDispatchGroupTest, WaitSucceedsWhenTheGroupEmptiesInTime) {
  RivetDispatchGroup group;
  group.enter();
  group.enter();
  std::thread first([&] { group.leave(); });
  std::thread second([&] { group.leave(); });
  EXPECT_THAT(group.wait(60.0), IsRivetSuccess());
  EXPECT_EQ(group.count(), 0);
  first.join();
  second.join();
}

TEST(RivetDispatchGroupTest, WaitWithoutTimeOutWaitsAsLongAsItTakes) {
  RivetDispatchGroup group;
  group.enter();
  std::thread worker([&] { group.leave(); });
  EXPECT_THAT(group.wait(std::nullopt), IsRivetSuccess());
  worker.join();
}

TEST(RivetDispatchGroupTest, NegativeOrNotANumberTimeOutOnlyChecks) {
  RivetDispatchGroup group;
  group.enter();
  EXPECT_THAT(group.wait(-1.0), IsRivetFailure(Eq("Dispatch group wait timed out")));
  EXPECT_THAT(group.wait(std::nan("")), IsRivetFailure(Eq("Dispatch group wait timed out")));
  group.leave();
  EXPECT_THAT(group.wait(-1.0), IsRivetSuccess());
}

TEST(RivetDispatchGroupDeathTest, AnUnbalancedLeaveStopsTheProcess) {
  RivetDispatchGroup group;
  EXPECT_DEATH(group.leave(), "Unbalanced call to RivetDispatchGroup::leave\\(\\)");
}

}  // namespace
}  // namespace vesp::rivet
