#include "support/rivet/RivetVia.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesp::rivet {
namespace {

using ::testing::HasSubstr;

RivetImpetus notificationImpetus() {
  return RivetImpetus("calendar manager received 'event store changed' notification",
                      RivetArgs{{"notification", "n"}}, "VespCalendarManager", "eventStoreChanged(notification:)", 151);
}

TEST(RivetViaTest, ImpetusIsTheWholeChainOfItsOwn) {
  RivetImpetus impetus = notificationImpetus();
  auto links = impetus.provenance();
  ASSERT_EQ(links.size(), 1u);
  EXPECT_EQ(links[0].kind, RivetViaLink::Kind::impetus);
  EXPECT_EQ(links[0].name, "calendar manager received 'event store changed' notification");
  EXPECT_EQ(links[0].lineNumber, 151u);
  EXPECT_EQ(impetus.parent(), nullptr);
}

TEST(RivetViaTest, ForksRecordTheirProvenanceBackToTheImpetus) {
  auto junction = notificationImpetus().fork(std::nullopt, std::nullopt, "VespCalendarManager",
                                             "eventStoreChangedInternal(via:)", 162);
  auto inner = junction->fork(RivetArgs{{"entityType", 0}}, RivetCodeSite{"Host", "caller()", 5}, "Bus",
                              "beginPublish(event:via:)", 9);
  auto links = inner->provenance();
  ASSERT_EQ(links.size(), 3u);
  EXPECT_EQ(links[0].functionName, "beginPublish(event:via:)");
  EXPECT_EQ(links[0].args->keys(), std::vector<std::string>{"entityType"});
  EXPECT_EQ(links[0].invokerSite->functionName, "caller()");
  EXPECT_EQ(links[1].functionName, "eventStoreChangedInternal(via:)");
  EXPECT_EQ(links[1].lineNumber, 162u);
  EXPECT_EQ(links[2].kind, RivetViaLink::Kind::impetus);
}

TEST(RivetViaTest, AJunctionOutlivesTheImpetusValueItWasForkedFrom) {
  std::shared_ptr<RivetJunction> junction;
  {
    RivetImpetus impetus = notificationImpetus();
    junction = impetus.fork(std::nullopt, std::nullopt, "F", "f()", 1);
  }
  EXPECT_EQ(junction->provenance().back().name, "calendar manager received 'event store changed' notification");
}

TEST(RivetViaTest, RendersTheChainInnermostFirst) {
  auto junction = notificationImpetus().fork(RivetArgs{{"a", 1}}, std::nullopt, "VespCalendarManager",
                                             "eventStoreChangedInternal(via:)", 162);
  std::string text = junction->description();
  auto fork = text.find("fork (VespCalendarManager, eventStoreChangedInternal(via:), line 162) args [\"a\": 1]");
  auto impetus = text.find("impetus \"calendar manager received 'event store changed' notification\"");
  ASSERT_NE(fork, std::string::npos) << text;
  ASSERT_NE(impetus, std::string::npos) << text;
  EXPECT_LT(fork, impetus);
}

TEST(RivetViaTest, RetainingAJunctionSharesIt) {
  auto junction = notificationImpetus().fork(std::nullopt, std::nullopt, "F", "f()", 1);
  EXPECT_EQ(junction->retain().get(), junction.get());
}

}  // namespace
}  // namespace vesp::rivet

namespace vesp::rivet {
namespace {

TEST(RivetViaDeathTest, AJunctionWithoutAParentStopsTheProcess) {
  EXPECT_DEATH(RivetJunction(nullptr, std::nullopt, std::nullopt, "F", "f()", 1),
               "RivetJunction made without a parent via");
}

}  // namespace
}  // namespace vesp::rivet
