#include "support/keel/KeelManagerBase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/RivetMatchers.h"

namespace vesp::keel {
namespace {

using ::testing::Eq;
using rivet::testing::IsRivetFailure;
using rivet::testing::IsRivetSuccess;

class PlainManager : public KeelManagerBase {
 public:
  explicit PlainManager(std::string identifier, std::vector<std::shared_ptr<KeelManagerBase>> dependencies = {})
      : identifier_(std::move(identifier)), dependencies_(std::move(dependencies)) {}
  std::string identifier() const override { return identifier_; }
  std::vector<std::shared_ptr<KeelManagerBase>> managersDirectlyDependedUpon() const override { return dependencies_; }

 private:
  std::string identifier_;
  std::vector<std::shared_ptr<KeelManagerBase>> dependencies_;
};

rivet::RivetImpetus impetus() { return rivet::RivetImpetus("test", std::nullopt, "KeelTest", "test()", 1); }

TEST(KeelManagerBaseTest, EveryLifeCycleOperationSucceeds) {
  PlainManager manager("com.ambrel.test.plain");
  auto via = impetus();
  EXPECT_THAT(manager.setUp(via), IsRivetSuccess());
  EXPECT_THAT(manager.tearDown(via), IsRivetSuccess());
  EXPECT_THAT(manager.allManagersWillSetUp(via), IsRivetSuccess());
  EXPECT_THAT(manager.allManagersDidSetUp(via), IsRivetSuccess());
  EXPECT_THAT(manager.allManagersWillTearDown(via), IsRivetSuccess());
  EXPECT_THAT(manager.allManagersDidTearDown(via), IsRivetSuccess());
  EXPECT_THAT(manager.allManagersWillReceiveApplicationDidBecomeActive(via), IsRivetSuccess());
  EXPECT_THAT(manager.allManagersDidReceiveApplicationDidBecomeActive(via), IsRivetSuccess());
  EXPECT_THAT(manager.allManagersWillReceiveApplicationDidEnterBackground(via), IsRivetSuccess());
  EXPECT_THAT(manager.allManagersDidReceiveApplicationDidEnterBackground(via), IsRivetSuccess());
  EXPECT_THAT(manager.applicationDidBecomeActive(via), IsRivetSuccess());
  EXPECT_THAT(manager.applicationDidEnterBackground(via), IsRivetSuccess());
}

TEST(KeelManagerBaseTest, ATornDownOrFailedManagerRefusesActivationAndBackground) {
  PlainManager manager("com.ambrel.test.plain");
  for (auto state : {KeelManagerRunningState::tornDown, KeelManagerRunningState::failed}) {
    manager.setRunningState(state);
    EXPECT_THAT(manager.applicationDidBecomeActive(impetus()), IsRivetFailure(Eq("Manager is not running")));
    EXPECT_THAT(manager.applicationDidEnterBackground(impetus()), IsRivetFailure(Eq("Manager is not running")));
    EXPECT_THAT(manager.setUp(impetus()), IsRivetSuccess());
  }
}

TEST(KeelManagerBaseTest, RunningStateStartsNotSetUpAndIsWritable) {
  PlainManager manager("com.ambrel.test.plain");
  EXPECT_EQ(manager.runningState(), KeelManagerRunningState::notSetUp);
  manager.setRunningState(KeelManagerRunningState::active);
  EXPECT_EQ(manager.runningState(), KeelManagerRunningState::active);
}

TEST(KeelManagerBaseTest, EnsureDependenciesChecksEveryDependencysState) {
  auto dependency = std::make_shared<PlainManager>("com.ambrel.test.dependency");
  PlainManager manager("com.ambrel.test.dependent", {dependency});
  EXPECT_THAT(manager.ensureDependencies({KeelManagerRunningState::setUp}),
              IsRivetFailure(Eq("Dependency is not in a required running state")));
  dependency->setRunningState(KeelManagerRunningState::setUp);
  EXPECT_THAT(manager.ensureDependencies({KeelManagerRunningState::setUp, KeelManagerRunningState::active}),
              IsRivetSuccess());
}

TEST(KeelManagerRunningStateTest, PrintsItsName) {
  std::ostringstream out;
  out << KeelManagerRunningState::background;
  EXPECT_EQ(out.str(), "background");
}

}  // namespace
}  // namespace vesp::keel
