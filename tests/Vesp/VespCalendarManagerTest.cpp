// The manager's construction, identity, life cycle, authorisation and store-change publication.
#include "Vesp/VespCalendarManager.h"

#include <thread>

#include "tests/support/ManagerFixture.h"
#include "tests/support/RivetMatchers.h"

namespace vesp {
namespace {

using namespace vesp::testing;
using platform::EKEntityTypeEvent;
using platform::EKEntityTypeReminder;
using ::testing::ElementsAre;
using ::testing::Eq;
using rivet::testing::IsRivetFailure;
using rivet::testing::IsRivetSuccess;

// A host object that holds its manager by value.
struct Host {
  Host(std::shared_ptr<rivet::RivetLogging> logger, std::shared_ptr<platform::Platform> platform)
      : manager(std::move(logger), std::move(platform)) {}
  VespCalendarManager manager;
};

class VespCalendarManagerTest : public ManagerFixture {
 protected:
  // Activates from inside a step of `machine`: that machine's query then fails, since a machine
  // cannot wait on itself.
  std::optional<rivet::RivetResult<void>> activateFromInsideAStepOf(
      VespCalendarManaging::AuthorisationStateMachine& machine) {
    std::optional<rivet::RivetResult<void>> activation;
    auto outer = machine.begin(impetus, [&](const VespAuthorisationStatus&, const auto&, const rivet::RivetVia&) {
      activation.emplace(manager->applicationDidBecomeActive(impetus));
      return rivet::RivetResultVoidSuccess;
    });
    EXPECT_THAT(outer, IsRivetSuccess());
    return activation;
  }
  // The user will grant event access, once the test releases the answer.
  void holdAGrantedEventAnswer() {
    declareUsage(true, true, true);
    platform->setAccessAnswer(EKEntityTypeEvent, memory::MemoryAccessAnswer{true, std::nullopt,
                                                                            memory::MemoryDelivery::held(), true});
  }
};

TEST_F(VespCalendarManagerTest, ANewManagerIsUnknownOnBothMachinesAndObservesNothing) {
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::unknown);
  EXPECT_EQ(manager->authorisationStateMachineReminders().state(), VespAuthorisationStatus::unknown);
  EXPECT_EQ(observerCount(), 0u);
  EXPECT_FALSE(manager->isObservingEventStore());
  EXPECT_FALSE(manager->isObservingReminderStore());
  EXPECT_FALSE(manager->calendarChooser());
  EXPECT_NE(manager->eventStore(), manager->reminderStore());
  EXPECT_EQ(manager->authorisationStateMachineEvents().requestProductionTimeout(), 60.0);
  EXPECT_FALSE(manager->authorisationStateMachineEvents().hasRequestProductionHandler());
  EXPECT_TRUE(platform->world()->accessRequests().empty());
}

TEST_F(VespCalendarManagerTest, IdentityAndDependencies) {
  EXPECT_EQ(manager->identifier(), "com.ambrel.vesp.managers.calendar");
  EXPECT_TRUE(manager->managersDirectlyDependedUpon().empty());
}

TEST_F(VespCalendarManagerTest, ActivationBringsBothMachinesInLineWithoutAsking) {
  setStatus(platform::EKAuthorizationStatusAuthorized, platform::EKAuthorizationStatusNotDetermined);
  ASSERT_THAT(manager->applicationDidBecomeActive(impetus), IsRivetSuccess());
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::authorised);
  EXPECT_EQ(manager->authorisationStateMachineReminders().state(), VespAuthorisationStatus::notDetermined);
  EXPECT_THAT(selectors(), ElementsAre("eventStoreChangedWithNotification:"));
  EXPECT_TRUE(platform->world()->accessRequests().empty());
}

TEST_F(VespCalendarManagerTest, ActivationWithABaseFailureQueriesNothingAndFailsAtLine75) {
  authoriseAll();
  manager->setRunningState(keel::KeelManagerRunningState::tornDown);
  auto result = manager->applicationDidBecomeActive(impetus);
  ASSERT_THAT(result, IsRivetFailure(Eq("Manager is not running")));
  expectLink(result.error(), "Manager is not running", {"self"}, "applicationDidBecomeActive(via:)", 75);
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::unknown);
  EXPECT_EQ(manager->authorisationStateMachineReminders().state(), VespAuthorisationStatus::unknown);
}

TEST_F(VespCalendarManagerTest, ActivationWhoseEventQueryFailsDoesNotQueryReminders) {
  authoriseAll();
  auto activation = activateFromInsideAStepOf(manager->authorisationStateMachineEvents());
  ASSERT_TRUE(activation);
  ASSERT_FALSE(activation->has_value());
  const auto& error = activation->error();
  expectLink(error, "State machine step began from inside a step", {"self"}, "applicationDidBecomeActive(via:)", 83);
  expectLink(*error.cause(), "State machine step began from inside a step", {"self", "requestIfNotDetermined"},
             "queryEventAuthorisation(requestIfNotDetermined:via:)", 828);
  expectLink(*error.cause()->cause(), "State machine step began from inside a step",
             {"self", "eventAuthorisationStatus", "requestIfNotDetermined"},
             "received(eventAuthorisationStatus:requestIfNotDetermined:via:)", 360);
  EXPECT_EQ(manager->authorisationStateMachineReminders().state(), VespAuthorisationStatus::unknown);
}

TEST_F(VespCalendarManagerTest, ActivationWhoseReminderQueryFailsKeepsTheEventSideAndFailsAtLine89) {
  authoriseAll();
  auto activation = activateFromInsideAStepOf(manager->authorisationStateMachineReminders());
  ASSERT_TRUE(activation);
  ASSERT_FALSE(activation->has_value());
  const auto& error = activation->error();
  expectLink(error, "State machine step began from inside a step", {"self"}, "applicationDidBecomeActive(via:)", 89);
  expectLink(*error.cause(), "State machine step began from inside a step", {"self", "requestIfNotDetermined"},
             "queryReminderAuthorisation(requestIfNotDetermined:via:)", 851);
  expectLink(*error.cause()->cause(), "State machine step began from inside a step",
             {"self", "reminderAuthorisationStatus", "requestIfNotDetermined"},
             "received(reminderAuthorisationStatus:requestIfNotDetermined:via:)", 522);
  // The event side already moved on; it is not undone.
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::authorised);
  EXPECT_TRUE(manager->isObservingEventStore());
}

TEST_F(VespCalendarManagerTest, EventStoreChangesCarryTheirNotificationImpetus) {
  authoriseAll();
  activate();
  std::vector<rivet::RivetViaLink> provenance;
  auto subscription = manager->eventStoreChangedEventBus().subscribe(
      [&](const VespEventStoreChangedEvent&, const rivet::RivetVia& via) { provenance = via.provenance(); });
  eventStore()->postChanged();
  manager->eventStoreChangedEventBus().waitUntilDelivered();
  ASSERT_EQ(provenance.size(), 2u);
  EXPECT_EQ(provenance[0].functionName, "eventStoreChangedInternal(via:)");
  EXPECT_EQ(provenance[0].lineNumber, 162u);
  EXPECT_FALSE(provenance[0].args);
  EXPECT_EQ(provenance[1].name, "calendar manager received 'event store changed' notification");
  EXPECT_EQ(provenance[1].functionName, "eventStoreChanged(notification:)");
  EXPECT_EQ(provenance[1].lineNumber, 151u);
}

TEST_F(VespCalendarManagerTest, AnAccessCompletionCarriesItsAnswerInItsImpetus) {
  declareUsage(true, true, true);
  platform->setAccessAnswer(platform::EKEntityTypeReminder,
                            memory::MemoryAccessAnswer{false, platform::NSError("EKErrorDomain", 29, "denied"),
                                                       memory::MemoryDelivery::immediately(), true});
  std::vector<rivet::RivetViaLink> provenance;
  std::mutex mutex;
  auto subscription = manager->authorisationStateMachineReminders().transitions().subscribe(
      [&](const rivet::RivetStateTransition<VespAuthorisationStatus>& transition, const rivet::RivetVia& via) {
        std::lock_guard lock(mutex);
        if (transition.newState == VespAuthorisationStatus::denied) provenance = via.provenance();
      });
  ASSERT_THAT(manager->queryReminderAuthorisation(true, impetus), IsRivetSuccess());
  platform->waitForDeliveries();
  manager->authorisationStateMachineReminders().transitions().waitUntilDelivered();
  EXPECT_EQ(manager->authorisationStateMachineReminders().state(), VespAuthorisationStatus::denied);
  std::lock_guard lock(mutex);
  ASSERT_FALSE(provenance.empty());
  const auto& origin = provenance.back();
  EXPECT_EQ(origin.name, "Calendar manager reminder access request completion handler");
  EXPECT_EQ(origin.functionName, "requestReminderAccessCompletionHandler(granted:error:)");
  EXPECT_EQ(origin.lineNumber, 552u);
  EXPECT_EQ(origin.args->keys(), (std::vector<std::string>{"granted", "error"}));
  EXPECT_EQ(*origin.args->find("granted"), rivet::RivetValue(false));
}

TEST_F(VespCalendarManagerTest, BackgroundStopsOnlyTheEventObserver) {
  authoriseAll();
  activate();
  EXPECT_EQ(observerCount(), 2u);
  BusCounter events(manager->eventStoreChangedEventBus());
  BusCounter reminders(manager->reminderStoreChangedEventBus());
  ASSERT_THAT(manager->applicationDidEnterBackground(impetus), IsRivetSuccess());
  EXPECT_FALSE(manager->isObservingEventStore());
  EXPECT_TRUE(manager->isObservingReminderStore());
  EXPECT_THAT(selectors(), ElementsAre("reminderStoreChangedWithNotification:"));
  platform->postStoreChanged();
  EXPECT_EQ(events.delivered(), 0);
  EXPECT_EQ(reminders.delivered(), 1);
}

TEST_F(VespCalendarManagerTest, BackgroundWithABaseFailureChangesNothingAndFailsAtLine100) {
  authoriseAll();
  activate();
  manager->setRunningState(keel::KeelManagerRunningState::failed);
  auto result = manager->applicationDidEnterBackground(impetus);
  ASSERT_FALSE(result.has_value());
  expectLink(result.error(), "Manager is not running", {"self"}, "applicationDidEnterBackground(via:)", 100);
  EXPECT_TRUE(manager->isObservingEventStore());
}

TEST_F(VespCalendarManagerTest, BecomingActiveAgainWhileAuthorisedDoesNotResumeEventObservation) {
  authoriseAll();
  activate();
  ASSERT_THAT(manager->applicationDidEnterBackground(impetus), IsRivetSuccess());
  activate();
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::authorised);
  EXPECT_FALSE(manager->isObservingEventStore());
  BusCounter events(manager->eventStoreChangedEventBus());
  eventStore()->postChanged();
  EXPECT_EQ(events.delivered(), 0);
  // Leaving and re-entering authorised starts observing again.
  platform->setAuthorizationStatus(EKEntityTypeEvent, platform::EKAuthorizationStatusDenied);
  activate();
  platform->setAuthorizationStatus(EKEntityTypeEvent, platform::EKAuthorizationStatusAuthorized);
  activate();
  EXPECT_TRUE(manager->isObservingEventStore());
  eventStore()->postChanged();
  EXPECT_EQ(events.delivered(), 1);
}

TEST_F(VespCalendarManagerTest, TransitionsCarryTheForksOfEveryStepBackToTheCaller) {
  setStatus(platform::EKAuthorizationStatusAuthorized, platform::EKAuthorizationStatusDenied);
  std::vector<rivet::RivetViaLink> events, reminders;
  auto eventSubscription = manager->authorisationStateMachineEvents().transitions().subscribe(
      [&](const auto&, const rivet::RivetVia& via) { events = via.provenance(); });
  auto reminderSubscription = manager->authorisationStateMachineReminders().transitions().subscribe(
      [&](const auto&, const rivet::RivetVia& via) { reminders = via.provenance(); });
  activate();
  manager->authorisationStateMachineEvents().transitions().waitUntilDelivered();
  manager->authorisationStateMachineReminders().transitions().waitUntilDelivered();
  auto lines = [](const std::vector<rivet::RivetViaLink>& links) {
    std::vector<std::pair<std::string, std::uint64_t>> list;
    for (const auto& link : links)
      if (link.fileName == "VespCalendarManager") list.emplace_back(link.functionName, link.lineNumber);
    return list;
  };
  EXPECT_THAT(lines(events),
              ElementsAre(std::make_pair("received(eventAuthorisationStatus:requestIfNotDetermined:via:)", 228),
                          std::make_pair("received(eventAuthorisationStatus:requestIfNotDetermined:via:)", 216),
                          std::make_pair("queryEventAuthorisation(requestIfNotDetermined:via:)", 820),
                          std::make_pair("applicationDidBecomeActive(via:)", 71)));
  EXPECT_THAT(lines(reminders),
              ElementsAre(std::make_pair("received(reminderAuthorisationStatus:requestIfNotDetermined:via:)", 390),
                          std::make_pair("received(reminderAuthorisationStatus:requestIfNotDetermined:via:)", 378),
                          std::make_pair("queryReminderAuthorisation(requestIfNotDetermined:via:)", 843),
                          std::make_pair("applicationDidBecomeActive(via:)", 71)));
  EXPECT_EQ(events.back().name, "test");
  // The query's fork carries the manager and the flag; the activation's none.
  for (const auto& link : events) {
    if (link.functionName == "queryEventAuthorisation(requestIfNotDetermined:via:)") {
      EXPECT_EQ(link.args->keys(), (std::vector<std::string>{"self", "requestIfNotDetermined"}));
    }
    if (link.functionName == "applicationDidBecomeActive(via:)") {
      EXPECT_FALSE(link.args);
    }
  }
}

TEST_F(VespCalendarManagerTest, RestrictedMovesToDeniedNeverToRestricted) {
  setStatus(platform::EKAuthorizationStatusRestricted, platform::EKAuthorizationStatusRestricted);
  activate();
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::denied);
  EXPECT_EQ(manager->authorisationStateMachineReminders().state(), VespAuthorisationStatus::denied);
}

TEST_F(VespCalendarManagerTest, DenialAfterAuthorisationStopsObserving) {
  authoriseAll();
  activate();
  setStatus(platform::EKAuthorizationStatusDenied, platform::EKAuthorizationStatusNotDetermined);
  activate();
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::denied);
  EXPECT_EQ(manager->authorisationStateMachineReminders().state(), VespAuthorisationStatus::notDetermined);
  EXPECT_EQ(observerCount(), 0u);
}

TEST_F(VespCalendarManagerTest, AQueryWhileAuthorisedTransitionsAgainAndAddsNoSecondObserver) {
  authoriseAll();
  activate();
  std::vector<std::pair<VespAuthorisationStatus, VespAuthorisationStatus>> transitions;
  auto subscription = manager->authorisationStateMachineEvents().transitions().subscribe(
      [&](const rivet::RivetStateTransition<VespAuthorisationStatus>& t, const rivet::RivetVia&) {
        transitions.emplace_back(t.oldState, t.newState);
      });
  ASSERT_THAT(manager->queryEventAuthorisation(false, impetus), IsRivetSuccess());
  manager->authorisationStateMachineEvents().transitions().waitUntilDelivered();
  EXPECT_THAT(transitions, ElementsAre(std::make_pair(VespAuthorisationStatus::authorised, VespAuthorisationStatus::authorised)));
  EXPECT_EQ(observerCount(), 2u);
}

TEST_F(VespCalendarManagerTest, RequestingWithoutTheContactsKeyFailsAndLeavesNotDetermined) {
  declareUsage(true, true, false);
  auto result = manager->queryEventAuthorisation(true, impetus);
  ASSERT_FALSE(result.has_value());
  const auto& error = result.error();
  expectLink(error, "No NSContactsUsageDescription key in info.plist", {"self", "requestIfNotDetermined"},
             "queryEventAuthorisation(requestIfNotDetermined:via:)", 828);
  expectLink(*error.cause(), "No NSContactsUsageDescription key in info.plist",
             {"self", "eventAuthorisationStatus", "requestIfNotDetermined"},
             "received(eventAuthorisationStatus:requestIfNotDetermined:via:)", 360);
  expectLink(*error.cause()->cause(), "No NSContactsUsageDescription key in info.plist",
             {"currentStatus", "serialTrail"}, "received(eventAuthorisationStatus:requestIfNotDetermined:via:)", 299);
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::notDetermined);
  EXPECT_TRUE(platform->world()->accessRequests().empty());
}

TEST_F(VespCalendarManagerTest, RequestingWithoutTheEntityKeyNamesThatKey) {
  declareUsage(true, false, true);
  auto reminders = manager->queryReminderAuthorisation(true, impetus);
  ASSERT_FALSE(reminders.has_value());
  expectLink(*reminders.error().cause()->cause(), "No NSRemindersUsageDescription key in info.plist",
             {"currentStatus", "serialTrail"}, "received(reminderAuthorisationStatus:requestIfNotDetermined:via:)", 447);
  expectLink(reminders.error(), "No NSRemindersUsageDescription key in info.plist", {"self", "requestIfNotDetermined"},
             "queryReminderAuthorisation(requestIfNotDetermined:via:)", 851);
  declareUsage(false, true, true);
  auto events = manager->queryEventAuthorisation(true, impetus);
  ASSERT_FALSE(events.has_value());
  expectLink(*events.error().cause()->cause(), "No NSCalendarsUsageDescription key in info.plist",
             {"currentStatus", "serialTrail"}, "received(eventAuthorisationStatus:requestIfNotDetermined:via:)", 285);
}

// Counts how often the information dictionary is consulted.
class CountingPlatform : public platform::PlatformWrapper {
 public:
  using PlatformWrapper::PlatformWrapper;
  std::shared_ptr<platform::NSBundle> mainBundle() override {
    ++bundleReads;
    return PlatformWrapper::mainBundle();
  }
  std::atomic<int> bundleReads{0};
};

TEST_F(VespCalendarManagerTest, NotRequestingSucceedsWithoutConsultingTheInformationDictionary) {
  auto counting = std::make_shared<CountingPlatform>(platform);
  auto countedManager = VespCalendarManager::make(logger, counting);
  ASSERT_THAT(countedManager->queryEventAuthorisation(false, impetus), IsRivetSuccess());
  EXPECT_EQ(counting->bundleReads.load(), 0);
  EXPECT_EQ(countedManager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::notDetermined);
}

TEST_F(VespCalendarManagerTest, AGrantedRequestEndsAuthorisedAndObserving) {
  declareUsage(true, true, true);
  platform->setAccessAnswer(EKEntityTypeEvent, memory::MemoryAccessAnswer{true, std::nullopt,
                                                                          memory::MemoryDelivery::held(), true});
  ASSERT_THAT(manager->queryEventAuthorisation(true, impetus), IsRivetSuccess());
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::notDetermined);
  ASSERT_EQ(platform->world()->accessRequests().size(), 1u);
  EXPECT_EQ(platform->releaseHeldDeliveries(), 1u);
  platform->waitForDeliveries();
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::authorised);
  EXPECT_TRUE(manager->isObservingEventStore());
  EXPECT_EQ(logger->count(), 0u);
}

TEST_F(VespCalendarManagerTest, TheCompletionIgnoresGrantedAndRereadsThePlatform) {
  declareUsage(true, true, true);
  // The user says yes, but the platform still reports not determined.
  platform->setAccessAnswer(EKEntityTypeReminder, memory::MemoryAccessAnswer{true, std::nullopt,
                                                                             memory::MemoryDelivery::immediately(), false});
  ASSERT_THAT(manager->queryReminderAuthorisation(true, impetus), IsRivetSuccess());
  platform->waitForDeliveries();
  EXPECT_EQ(manager->authorisationStateMachineReminders().state(), VespAuthorisationStatus::notDetermined);
  auto requests = platform->world()->accessRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_TRUE(requests[0].answered);
}

TEST_F(VespCalendarManagerTest, AnUnknownPlatformStatusIsLoggedAndTheStateKept) {
  authoriseAll();
  activate();
  platform->setAuthorizationStatus(EKEntityTypeEvent, 4);
  ASSERT_THAT(manager->queryEventAuthorisation(false, impetus), IsRivetSuccess());
  EXPECT_EQ(manager->authorisationStateMachineEvents().state(), VespAuthorisationStatus::authorised);
  auto entries = logger->entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].level, rivet::RivetRecordingLogger::Level::anomaly);
  expectLink(entries[0].error, "Unknown CLAuthorizationStatus", {"currentStatus", "eventAuthorisationStatus"},
             "received(eventAuthorisationStatus:requestIfNotDetermined:via:)", 341);
  EXPECT_EQ(entries[0].via->provenance().front().lineNumber, 228u);
}

TEST_F(VespCalendarManagerTest, AStoreChangeWhileAuthorisedPublishesExactlyOneEvent) {
  authoriseAll();
  activate();
  BusCounter events(manager->eventStoreChangedEventBus());
  BusCounter reminders(manager->reminderStoreChangedEventBus());
  eventStore()->postChanged();
  EXPECT_EQ(events.delivered(), 1);
  EXPECT_EQ(reminders.delivered(), 0);
  reminderStore()->postChanged();
  EXPECT_EQ(events.delivered(), 1);
  EXPECT_EQ(reminders.delivered(), 1);
}

TEST_F(VespCalendarManagerTest, AStoreChangeWhileDeniedPublishesAndLogsNothing) {
  authoriseAll();
  activate();
  BusCounter events(manager->eventStoreChangedEventBus());
  // Access withdrawn, observer still registered: the platform's status at the moment decides.
  platform->setAuthorizationStatus(EKEntityTypeEvent, platform::EKAuthorizationStatusDenied);
  eventStore()->postChanged();
  EXPECT_EQ(events.delivered(), 0);
  EXPECT_EQ(logger->count(), 0u);
}

TEST_F(VespCalendarManagerTest, PublishedEventsCarryTheNotificationImpetus) {
  authoriseAll();
  activate();
  std::vector<rivet::RivetViaLink> provenance;
  auto subscription = manager->reminderStoreChangedEventBus().subscribe(
      [&](const VespReminderStoreChangedEvent&, const rivet::RivetVia& via) { provenance = via.provenance(); });
  reminderStore()->postChanged();
  manager->reminderStoreChangedEventBus().waitUntilDelivered();
  ASSERT_EQ(provenance.size(), 2u);
  EXPECT_EQ(provenance[0].functionName, "reminderStoreChangedInternal(via:)");
  EXPECT_EQ(provenance[0].lineNumber, 187u);
  EXPECT_EQ(provenance[1].name, "calendar manager received 'reminder store changed' notification");
  EXPECT_EQ(provenance[1].lineNumber, 176u);
  EXPECT_EQ(provenance[1].args->keys(), std::vector<std::string>{"notification"});
}

TEST_F(VespCalendarManagerTest, ADestroyedManagerIsSkippedByTheNotificationCentre) {
  authoriseAll();
  activate();
  std::weak_ptr<VespCalendarManager> watch = manager;
  manager.reset();
  EXPECT_TRUE(watch.expired());
  for (const auto& observation : platform->defaultCenter()->observations()) EXPECT_FALSE(observation.observerAlive);
  platform->defaultCenter()->postNotificationName(platform::EKEventStoreChangedNotification, nullptr);
  EXPECT_TRUE(platform->defaultCenter()->observations().empty());
}

// However a manager is built, a store change after activation reaches its bus.
TEST_F(VespCalendarManagerTest, AManagerBuiltOnTheStackObservesAndPublishesAfterActivation) {
  authoriseAll();
  VespCalendarManager onStack(logger, platform);
  ASSERT_THAT(onStack.applicationDidBecomeActive(impetus), IsRivetSuccess());
  EXPECT_TRUE(onStack.isObservingEventStore());
  BusCounter<VespEventStoreChangedEvent> events(onStack.eventStoreChangedEventBus());
  BusCounter<VespReminderStoreChangedEvent> reminders(onStack.reminderStoreChangedEventBus());
  std::static_pointer_cast<memory::MemoryEventStore>(onStack.eventStore())->postChanged();
  std::static_pointer_cast<memory::MemoryEventStore>(onStack.reminderStore())->postChanged();
  EXPECT_EQ(events.delivered(), 1);
  EXPECT_EQ(reminders.delivered(), 1);
  for (const auto& observation : platform->defaultCenter()->observations())
    EXPECT_TRUE(observation.observerAlive) << observation.selectorName;
}

TEST_F(VespCalendarManagerTest, AManagerInsideAHostObjectIsForgottenByTheCentreWhenDestroyed) {
  authoriseAll();
  auto host = std::make_unique<Host>(logger, platform);
  ASSERT_THAT(host->manager.applicationDidBecomeActive(impetus), IsRivetSuccess());
  host.reset();
  for (const auto& observation : platform->defaultCenter()->observations()) EXPECT_FALSE(observation.observerAlive);
  platform->postStoreChanged();
  EXPECT_EQ(logger->count(), 0u);
}

TEST_F(VespCalendarManagerTest, AnAccessAnswerArrivingAfterAStackManagerIsGoneIsDropped) {
  holdAGrantedEventAnswer();
  {
    VespCalendarManager onStack(logger, platform);
    ASSERT_THAT(onStack.queryEventAuthorisation(true, impetus), IsRivetSuccess());
  }
  EXPECT_EQ(platform->releaseHeldDeliveries(), 1u);
  platform->waitForDeliveries();
  EXPECT_EQ(platform->authorizationStatusForEntityType(EKEntityTypeEvent), platform::EKAuthorizationStatusAuthorized);
}

TEST_F(VespCalendarManagerTest, AStackManagersAnswerArrivingWhileItLivesMovesItsMachine) {
  holdAGrantedEventAnswer();
  VespCalendarManager onStack(logger, platform);
  ASSERT_THAT(onStack.queryEventAuthorisation(true, impetus), IsRivetSuccess());
  EXPECT_EQ(platform->releaseHeldDeliveries(), 1u);
  platform->waitForDeliveries();
  EXPECT_EQ(onStack.authorisationStateMachineEvents().state(), VespAuthorisationStatus::authorised);
  EXPECT_TRUE(onStack.isObservingEventStore());
}

// Store changes posted from many threads while the stack manager is destroyed: each call either
// finishes inside the live manager or skips it.
TEST_F(VespCalendarManagerTest, PostsRacingTheDestructionOfAStackManagerAreSafe) {
  authoriseAll();
  for (int round = 0; round < 20; ++round) {
    auto onHeap = std::make_unique<Host>(logger, platform);
    ASSERT_THAT(onHeap->manager.applicationDidBecomeActive(impetus), IsRivetSuccess());
    std::atomic<bool> stop{false};
    std::vector<std::thread> posters;
    for (int t = 0; t < 3; ++t)
      posters.emplace_back([&] {
        while (!stop.load()) platform->postStoreChanged();
      });
    std::this_thread::yield();
    onHeap.reset();
    stop = true;
    for (auto& poster : posters) poster.join();
  }
  EXPECT_EQ(logger->count(), 0u);
}

TEST_F(VespCalendarManagerTest, ASubscriptionTokenOutlivingItsManagerIsHarmless) {
  authoriseAll();
  activate();
  std::atomic<int> calls{0};
  auto subscription = manager->eventStoreChangedEventBus().subscribe(
      [&](const VespEventStoreChangedEvent&, const rivet::RivetVia&) { ++calls; });
  auto transitions = manager->authorisationStateMachineEvents().transitions().subscribe(
      [](const auto&, const rivet::RivetVia&) {});
  eventStore()->postChanged();
  manager->eventStoreChangedEventBus().waitUntilDelivered();
  manager.reset();
  EXPECT_FALSE(subscription.active());
  EXPECT_FALSE(transitions.active());
  EXPECT_EQ(calls.load(), 1);
}

TEST(VespCalendarManagerDeathTest, TheArgumentlessConstructionStopsTheProcess) {
  EXPECT_DEATH(VespCalendarManager(), "unimplemented initializer 'init\\(\\)'");
}

}  // namespace
}  // namespace vesp
