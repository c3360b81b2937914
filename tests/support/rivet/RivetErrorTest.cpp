#include "support/rivet/RivetError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesp::rivet {
namespace {

using ::testing::HasSubstr;

TEST(RivetErrorTest, FreshErrorKeepsItsContext) {
  RivetError error("Not authorised to query events", RivetArgs{{"self", "m"}, {"calendars", "all"}},
                   "VespCalendarManager", "getEventInstances(startDateInc:endDateEx:calendars:)", 240,
                   platform::NSError("EKErrorDomain", 29, "denied"));
  EXPECT_EQ(error.message(), "Not authorised to query events");
  EXPECT_EQ(error.args()->keys(), (std::vector<std::string>{"self", "calendars"}));
  EXPECT_EQ(error.fileName(), "VespCalendarManager");
  EXPECT_EQ(error.functionName(), "getEventInstances(startDateInc:endDateEx:calendars:)");
  EXPECT_EQ(error.lineNumber(), 240u);
  EXPECT_EQ(error.frameworkError()->code(), 29);
  EXPECT_EQ(error.cause(), nullptr);
}

TEST(RivetErrorTest, WrappingKeepsTheInnerErrorAsCauseAndItsMessage) {
  RivetError inner("No such event", RivetArgs{{"eventIdentifier", "E"}}, "VespCalendarManager",
                   "getEventStoreEventInstance(eventInstanceIdentifier:)", 300);
  RivetError outer = RivetError::wrapping(inner, RivetArgs{{"self", "m"}}, "VespCalendarManager",
                                          "viewCalendarEvent(eventInstanceIdentifier:presentingViewController:)", 898);
  EXPECT_EQ(outer.message(), "No such event");
  EXPECT_EQ(outer.lineNumber(), 898u);
  EXPECT_FALSE(outer.frameworkError());
  ASSERT_NE(outer.cause(), nullptr);
  EXPECT_EQ(*outer.cause(), inner);
}

TEST(RivetErrorTest, AFailureWrappedThreeDeepRendersItsChainOutermostFirst) {
  RivetError innermost("Cannot find specified recurrence instance", RivetArgs{{"id", "E"}}, "Inner", "find(id:)", 11);
  RivetError middle = RivetError::wrapping(innermost, RivetArgs{{"step", 2}}, "Middle", "lookUp(id:)", 22);
  RivetError outer = RivetError::wrapping(middle, RivetArgs{{"self", "m"}}, "Outer", "view(id:)", 33);
  RivetError outermost = RivetError::wrapping(outer, std::nullopt, "Top", "run()", 44);

  auto chain = outermost.chain();
  ASSERT_EQ(chain.size(), 4u);
  EXPECT_EQ(chain[0]->fileName(), "Top");
  EXPECT_EQ(chain[3]->fileName(), "Inner");

  std::string text = outermost.description();
  std::vector<std::string> expectedInOrder = {"Top, run(), line 44",       "Outer, view(id:), line 33",
                                              "Middle, lookUp(id:), line 22", "Inner, find(id:), line 11"};
  std::size_t position = 0;
  for (const auto& piece : expectedInOrder) {
    std::size_t found = text.find(piece, position);
    ASSERT_NE(found, std::string::npos) << piece << " missing or out of order in:\n" << text;
    position = found + piece.size();
  }
  EXPECT_THAT(text, HasSubstr("[\"step\": 2]"));
  EXPECT_THAT(text, HasSubstr("\"Cannot find specified recurrence instance\""));
}

TEST(RivetErrorTest, EqualityComparesTheErrorsOwnContextNotItsCause) {
  RivetError a = RivetError::wrapping(RivetError("x", std::nullopt, "F", "f()", 1), std::nullopt, "G", "g()", 2);
  RivetError b = RivetError::wrapping(RivetError("x", std::nullopt, "H", "h()", 9), std::nullopt, "G", "g()", 2);
  EXPECT_EQ(a, b);
  RivetError c("x", std::nullopt, "G", "g()", 3);
  EXPECT_NE(a, c);
}

TEST(RivetErrorTest, RenderingNamesTheFrameworkError) {
  RivetError error("Access failed", std::nullopt, "F", "f()", 1, platform::NSError("EKErrorDomain", 1, "boom"));
  EXPECT_THAT(error.description(), HasSubstr("NSError(EKErrorDomain, 1, \"boom\")"));
}

}  // namespace
}  // namespace vesp::rivet
