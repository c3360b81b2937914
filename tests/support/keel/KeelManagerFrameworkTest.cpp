#include "support/keel/KeelManagerFramework.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/RivetMatchers.h"

namespace vesp::keel {
namespace {

using ::testing::ElementsAre;
using ::testing::Eq;
using rivet::RivetResult;
using rivet::RivetVia;
using rivet::testing::IsRivetFailure;
using rivet::testing::IsRivetSuccess;

// A manager that writes each life-cycle call into a shared journal.
class JournalManager : public KeelManagerBase {
 public:
  JournalManager(std::string identifier, std::vector<std::string>* journal) : identifier_(std::move(identifier)), journal_(journal) {}
  std::string identifier() const override { return identifier_; }
  std::vector<std::shared_ptr<KeelManagerBase>> managersDirectlyDependedUpon() const override { return dependencies; }

  RivetResult<void> allManagersWillSetUp(const RivetVia& via) override { return note("willSetUp", via); }
  RivetResult<void> setUp(const RivetVia& via) override { return note("setUp", via); }
  RivetResult<void> allManagersDidSetUp(const RivetVia& via) override { return note("didSetUp", via); }
  RivetResult<void> applicationDidBecomeActive(const RivetVia& via) override {
    auto base = KeelManagerBase::applicationDidBecomeActive(via);
    if (!base) return base;
    return note("active", via);
  }
  RivetResult<void> applicationDidEnterBackground(const RivetVia& via) override { return note("background", via); }
  RivetResult<void> tearDown(const RivetVia& via) override { return note("tearDown", via); }

  std::vector<std::shared_ptr<KeelManagerBase>> dependencies;
  std::string failOn;

 private:
  RivetResult<void> note(const std::string& what, const RivetVia&) {
    journal_->push_back(identifier_ + ":" + what);
    if (what == failOn)
      return RivetResult<void>("Manager refused", rivet::RivetArgs{{"what", what}}, "JournalManager", what, 1);
    return rivet::RivetResultVoidSuccess;
  }
  std::string identifier_;
  std::vector<std::string>* journal_;
};

rivet::RivetImpetus impetus() { return rivet::RivetImpetus("host", std::nullopt, "Host", "main()", 1); }

std::vector<std::string> identifiers(const std::vector<std::shared_ptr<KeelManagerBase>>& managers) {
  std::vector<std::string> list;
  for (const auto& manager : managers) list.push_back(manager->identifier());
  return list;
}

TEST(KeelManagerFrameworkTest, OrdersManagersAfterThoseTheyDependUpon) {
  std::vector<std::string> journal;
  auto calendar = std::make_shared<JournalManager>("calendar", &journal);
  auto storage = std::make_shared<JournalManager>("storage", &journal);
  auto network = std::make_shared<JournalManager>("network", &journal);
  calendar->dependencies = {storage, network};
  storage->dependencies = {network};
  KeelManagerFramework framework;
  ASSERT_THAT(framework.registerManager(calendar), IsRivetSuccess());
  ASSERT_THAT(framework.registerManager(storage), IsRivetSuccess());
  ASSERT_THAT(framework.registerManager(network), IsRivetSuccess());
  auto order = framework.dependencyOrder();
  ASSERT_THAT(order, IsRivetSuccess());
  EXPECT_THAT(identifiers(*order), ElementsAre("network", "storage", "calendar"));
}

TEST(KeelManagerFrameworkTest, RejectsADependencyCycleWithAFailureNamingIt) {
  std::vector<std::string> journal;
  auto a = std::make_shared<JournalManager>("a", &journal);
  auto b = std::make_shared<JournalManager>("b", &journal);
  auto c = std::make_shared<JournalManager>("c", &journal);
  a->dependencies = {b};
  b->dependencies = {c};
  c->dependencies = {a};
  KeelManagerFramework framework;
  ASSERT_THAT(framework.registerManager(a), IsRivetSuccess());
  ASSERT_THAT(framework.registerManager(b), IsRivetSuccess());
  ASSERT_THAT(framework.registerManager(c), IsRivetSuccess());
  auto order = framework.dependencyOrder();
  ASSERT_THAT(order, IsRivetFailure(Eq("Manager dependency cycle")));
  EXPECT_EQ(order.error().args()->find("cycle")->description(), "[\"a\", \"b\", \"c\", \"a\"]");
  EXPECT_THAT(framework.setUpAll(impetus()), IsRivetFailure(Eq("Manager dependency cycle")));
  EXPECT_TRUE(journal.empty());
  // Break the cycle so the managers can be released.
  c->dependencies.clear();
}

TEST(KeelManagerFrameworkTest, RejectsADependencyThatIsNotRegistered) {
  std::vector<std::string> journal;
  auto a = std::make_shared<JournalManager>("a", &journal);
  a->dependencies = {std::make_shared<JournalManager>("ghost", &journal)};
  KeelManagerFramework framework;
  ASSERT_THAT(framework.registerManager(a), IsRivetSuccess());
  auto order = framework.dependencyOrder();
  ASSERT_THAT(order, IsRivetFailure(Eq("Manager dependency is not registered")));
  EXPECT_EQ(*order.error().args()->find("dependency")->text(), "ghost");
}

TEST(KeelManagerFrameworkTest, RejectsADuplicateOrNullManager) {
  std::vector<std::string> journal;
  KeelManagerFramework framework;
  ASSERT_THAT(framework.registerManager(std::make_shared<JournalManager>("a", &journal)), IsRivetSuccess());
  EXPECT_THAT(framework.registerManager(std::make_shared<JournalManager>("a", &journal)),
              IsRivetFailure(Eq("A manager with this identifier is already registered")));
  EXPECT_THAT(framework.registerManager(nullptr), IsRivetFailure(Eq("Cannot register a null manager")));
}

TEST(KeelManagerFrameworkTest, DrivesTheLifeCycleInDependencyOrderAndKeepsRunningStates) {
  std::vector<std::string> journal;
  auto app = std::make_shared<JournalManager>("app", &journal);
  auto base = std::make_shared<JournalManager>("base", &journal);
  app->dependencies = {base};
  KeelManagerFramework framework;
  ASSERT_THAT(framework.registerManager(app), IsRivetSuccess());
  ASSERT_THAT(framework.registerManager(base), IsRivetSuccess());
  EXPECT_THAT(framework.applicationDidBecomeActive(impetus()), IsRivetFailure(Eq("Managers are not set up")));

  ASSERT_THAT(framework.setUpAll(impetus()), IsRivetSuccess());
  EXPECT_THAT(journal, ElementsAre("base:willSetUp", "app:willSetUp", "base:setUp", "app:setUp", "base:didSetUp",
                                   "app:didSetUp"));
  EXPECT_EQ(app->runningState(), KeelManagerRunningState::setUp);
  EXPECT_THAT(app->ensureDependencies({KeelManagerRunningState::setUp}), IsRivetSuccess());
  EXPECT_THAT(framework.registerManager(std::make_shared<JournalManager>("late", &journal)),
              IsRivetFailure(Eq("Cannot register a manager after set-up")));

  journal.clear();
  ASSERT_THAT(framework.applicationDidBecomeActive(impetus()), IsRivetSuccess());
  EXPECT_THAT(journal, ElementsAre("base:active", "app:active"));
  EXPECT_EQ(base->runningState(), KeelManagerRunningState::active);

  ASSERT_THAT(framework.applicationDidEnterBackground(impetus()), IsRivetSuccess());
  EXPECT_EQ(app->runningState(), KeelManagerRunningState::background);

  journal.clear();
  ASSERT_THAT(framework.tearDownAll(impetus()), IsRivetSuccess());
  EXPECT_THAT(journal, ElementsAre("app:tearDown", "base:tearDown"));
  EXPECT_EQ(app->runningState(), KeelManagerRunningState::tornDown);
}

TEST(KeelManagerFrameworkTest, AFailingManagerStopsTheRoundAndIsMarkedFailed) {
  std::vector<std::string> journal;
  auto first = std::make_shared<JournalManager>("first", &journal);
  auto second = std::make_shared<JournalManager>("second", &journal);
  second->dependencies = {first};
  first->failOn = "setUp";
  KeelManagerFramework framework;
  ASSERT_THAT(framework.registerManager(first), IsRivetSuccess());
  ASSERT_THAT(framework.registerManager(second), IsRivetSuccess());
  auto result = framework.setUpAll(impetus());
  ASSERT_THAT(result, IsRivetFailure(Eq("Manager refused")));
  EXPECT_EQ(*result.error().args()->find("manager")->text(), "first");
  ASSERT_NE(result.error().cause(), nullptr);
  EXPECT_EQ(result.error().cause()->fileName(), "JournalManager");
  EXPECT_EQ(first->runningState(), KeelManagerRunningState::failed);
  EXPECT_EQ(second->runningState(), KeelManagerRunningState::notSetUp);
  EXPECT_THAT(journal, ElementsAre("first:willSetUp", "second:willSetUp", "first:setUp"));
}

}  // namespace
}  // namespace vesp::keel
