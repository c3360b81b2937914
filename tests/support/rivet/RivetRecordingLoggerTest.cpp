#include "support/rivet/RivetRecordingLogger.h"

#include <gtest/gtest.h>

#include <thread>

namespace vesp::rivet {
namespace {

TEST(RivetRecordingLoggerTest, RecordsEachReportWithItsLevelErrorAndVia) {
  RivetRecordingLogger logger;
  RivetImpetus impetus("cause", std::nullopt, "F", "f()", 1);
  logger.reportFailure(RivetError("first", std::nullopt, "F", "f()", 2), impetus);
  logger.reportAnomaly(RivetError("second", std::nullopt, "F", "f()", 3), impetus);
  auto entries = logger.entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].level, RivetRecordingLogger::Level::failure);
  EXPECT_EQ(entries[0].error.message(), "first");
  EXPECT_EQ(entries[1].level, RivetRecordingLogger::Level::anomaly);
  EXPECT_EQ(entries[1].via->provenance().front().name, "cause");
  logger.clear();
  EXPECT_EQ(logger.count(), 0u);
}

TEST(RivetRecordingLoggerTest, WaitForCountReturnsWhenReportsArriveFromAnotherThread) {
  RivetRecordingLogger logger;
  std::thread reporter([&] {
    logger.reportFailure(RivetError("late", std::nullopt, "F", "f()", 1), RivetImpetus("i", {}, "F", "f()", 1));
  });
  EXPECT_TRUE(logger.waitForCount(1, std::chrono::seconds(10)));
  reporter.join();
  EXPECT_FALSE(logger.waitForCount(2, std::chrono::milliseconds(10)));
}

}  // namespace
}  // namespace vesp::rivet
