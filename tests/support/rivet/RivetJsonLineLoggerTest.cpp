#include "support/rivet/RivetJsonLineLogger.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>
#include <vector>

namespace vesp::rivet {
namespace {

using Json = nlohmann::json;

std::chrono::system_clock::time_point fixedTime() {
  return std::chrono::system_clock::time_point(std::chrono::milliseconds(1795305600123LL));
}

std::vector<Json> lines(const std::string& text) {
  std::vector<Json> parsed;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) parsed.push_back(Json::parse(line));
  return parsed;
}

TEST(RivetJsonLineLoggerTest, WritesOneJsonObjectPerReportWithErrorAndViaChains) {
  std::ostringstream out;
  auto logger = RivetJsonLineLogger::toStream(out, fixedTime);
  RivetImpetus impetus("Calendar chooser finished", RivetArgs{{"self", "picker"}}, "VespCalendarPicker",
                       "calendarChooserDidFinish(_:)", 54);
  auto junction = impetus.fork(std::nullopt, std::nullopt, "Host", "callback()", 3);
  RivetError inner("Inner", RivetArgs{{"x", 1}}, "A", "a()", 1, platform::NSError("D", 4, "four"));
  logger->reportFailure(RivetError::wrapping(inner, RivetArgs{{"y", "two"}}, "B", "b()", 2), *junction);
  logger->reportAnomaly(RivetError("Unknown CLAuthorizationStatus", RivetArgs{{"status", 9}}, "M", "m()", 5),
                        impetus);

  auto parsed = lines(out.str());
  ASSERT_EQ(parsed.size(), 2u);
  const Json& failure = parsed[0];
  EXPECT_EQ(failure["time"], "2026-11-22T00:00:00.123Z");
  EXPECT_EQ(failure["level"], "failure");
  EXPECT_EQ(failure["message"], "Inner");
  EXPECT_EQ(failure["args"]["y"], "two");
  ASSERT_EQ(failure["errorChain"].size(), 2u);
  EXPECT_EQ(failure["errorChain"][0]["functionName"], "b()");
  EXPECT_EQ(failure["errorChain"][1]["lineNumber"], 1);
  EXPECT_EQ(failure["errorChain"][1]["frameworkError"]["code"], 4);
  ASSERT_EQ(failure["viaChain"].size(), 2u);
  EXPECT_EQ(failure["viaChain"][0]["kind"], "fork");
  EXPECT_EQ(failure["viaChain"][1]["name"], "Calendar chooser finished");
  EXPECT_EQ(parsed[1]["level"], "anomaly");
  EXPECT_EQ(parsed[1]["args"]["status"], 9);
}

TEST(RivetJsonLineLoggerTest, KeepsArgsInTheirOrder) {
  std::ostringstream out;
  auto logger = RivetJsonLineLogger::toStream(out, fixedTime);
  RivetImpetus impetus("i", std::nullopt, "F", "f()", 1);
  logger->reportFailure(RivetError("m", RivetArgs{{"self", 1}, {"b", 2}, {"a", 3}}, "F", "f()", 1), impetus);
  EXPECT_NE(out.str().find("\"args\":{\"self\":1,\"b\":2,\"a\":3}"), std::string::npos) << out.str();
}

TEST(RivetJsonLineLoggerTest, ReportsFromManyThreadsStayWholeLines) {
  std::ostringstream out;
  auto logger = RivetJsonLineLogger::toStream(out);
  constexpr int threads = 8, reports = 200;
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([&, t] {
      RivetImpetus impetus("worker", RivetArgs{{"thread", t}}, "T", "run()", 1);
      for (int i = 0; i < reports; ++i)
        logger->reportFailure(RivetError("report", RivetArgs{{"i", i}}, "T", "run()", 2), impetus);
    });
  for (auto& worker : workers) worker.join();
  auto parsed = lines(out.str());
  EXPECT_EQ(parsed.size(), static_cast<std::size_t>(threads * reports));
}

TEST(RivetJsonLineLoggerTest, AppendsToAFile) {
  auto path = std::filesystem::temp_directory_path() / ("vesp-logger-test-" + std::to_string(::getpid()) + ".jsonl");
  std::filesystem::remove(path);
  {
    auto logger = RivetJsonLineLogger::toFile(path);
    ASSERT_TRUE(logger.has_value());
    (*logger)->reportFailure(RivetError("to file", std::nullopt, "F", "f()", 1), RivetImpetus("i", {}, "F", "f()", 1));
  }
  std::ifstream in(path);
  std::string line;
  ASSERT_TRUE(std::getline(in, line));
  EXPECT_EQ(Json::parse(line)["message"], "to file");
  std::filesystem::remove(path);
}

TEST(RivetJsonLineLoggerTest, AFileThatCannotBeOpenedIsAFailure) {
  auto logger = RivetJsonLineLogger::toFile("/nonexistent-directory/vesp/log.jsonl");
  ASSERT_FALSE(logger.has_value());
  EXPECT_EQ(logger.error().message(), "Cannot open log file");
  EXPECT_TRUE(logger.error().frameworkError().has_value());
}

TEST(RivetJsonLineLoggerTest, InvalidUtf8InAMessageIsReplacedNotFatal) {
  std::ostringstream out;
  auto logger = RivetJsonLineLogger::toStream(out);
  logger->reportFailure(RivetError("bad \xff byte", std::nullopt, "F", "f()", 1), RivetImpetus("i", {}, "F", "f()", 1));
  Json parsed;
  EXPECT_NO_THROW(parsed = Json::parse(out.str()));
  EXPECT_EQ(parsed["level"], "failure");
}

}  // namespace
}  // namespace vesp::rivet
