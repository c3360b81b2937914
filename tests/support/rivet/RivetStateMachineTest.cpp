#include "support/rivet/RivetStateMachine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/rivet/RivetRecordingLogger.h"
#include "tests/support/RivetMatchers.h"

namespace vesp::rivet {
namespace {

using ::testing::Eq;
using testing::IsRivetFailure;
using testing::IsRivetSuccess;
using testing::IsRivetSuccessAndHolds;

// A counter state, to see that each step sees what the previous one left.
struct Counter {
  long value = 0;
  static std::string_view identifier() { return "com.ambrel.vesp.test.counter"; }
  friend bool operator==(const Counter&, const Counter&) = default;
};
std::ostream& operator<<(std::ostream& out, const Counter& counter) { return out << counter.value; }

enum class Light { red, green };

}  // namespace

template <>
struct RivetStateIdentifier<Light> {
  static std::string_view identifier() { return "com.ambrel.vesp.test.light"; }
};

namespace {

using Machine = RivetStateMachine<Counter>;

RivetImpetus testImpetus() { return RivetImpetus("test", std::nullopt, "RivetStateMachineTest", "test()", 1); }

std::unique_ptr<Machine> makeMachine(Machine::RequestProductionHandler handler = nullptr,
                                     double timeout = 60.0) {
  return std::make_unique<Machine>(Counter{0}, std::make_shared<RivetRecordingLogger>(), std::move(handler), timeout);
}

TEST(RivetStateMachineTest, StartsInItsInitialStateAndKeepsItsConfiguration) {
  auto machine = makeMachine();
  EXPECT_EQ(machine->state(), Counter{0});
  EXPECT_EQ(machine->requestProductionTimeout(), 60.0);
  EXPECT_FALSE(machine->hasRequestProductionHandler());
  EXPECT_EQ(Machine::identifier(), "com.ambrel.vesp.test.counter");
}

TEST(RivetStateMachineTest, EnumerationStatesTakeTheirIdentifierFromASpecialisation) {
  RivetStateMachine<Light> machine(Light::red, nullptr, nullptr, 60.0);
  EXPECT_EQ(machine.identifier(), "com.ambrel.vesp.test.light");
  auto result = machine.begin(testImpetus(), [](const Light&, const auto& transition, const RivetVia& via) {
    return transition(Light::green, via);
  });
  EXPECT_THAT(result, IsRivetSuccess());
  EXPECT_EQ(machine.state(), Light::green);
}

TEST(RivetStateMachineTest, BeginReturnsTheStepsOwnResult) {
  auto machine = makeMachine();
  auto failure = machine->begin(testImpetus(), [](const Counter&, const auto&, const RivetVia&) {
    return RivetResult<void>("Step failed", RivetArgs{{"why", "test"}}, "Step", "step()", 12);
  });
  EXPECT_THAT(failure, IsRivetFailure(Eq("Step failed")));
  EXPECT_EQ(failure.error().lineNumber(), 12u);
  auto success = machine->begin(testImpetus(), [](const Counter&, const auto&, const RivetVia&) {
    return RivetResultVoidSuccess;
  });
  EXPECT_THAT(success, IsRivetSuccess());
}

TEST(RivetStateMachineTest, StepRunsOnTheMachinesQueueWithAForkOfTheVia) {
  auto machine = makeMachine();
  std::thread::id stepThread;
  std::vector<RivetViaLink> provenance;
  auto junction = testImpetus().fork(std::nullopt, std::nullopt, "Caller", "caller()", 2);
  (void)machine->begin(*junction, [&](const Counter&, const auto&, const RivetVia& via) {
    stepThread = std::this_thread::get_id();
    provenance = via.provenance();
    return RivetResultVoidSuccess;
  });
  EXPECT_NE(stepThread, std::this_thread::get_id());
  ASSERT_EQ(provenance.size(), 3u);
  EXPECT_EQ(provenance[0].functionName, "begin(via:onSerialQueue:)");
  EXPECT_EQ(provenance[1].functionName, "caller()");
}

TEST(RivetStateMachineTest, ManyThreadsBeginningStepsNeverOverlapAndEachSeesThePreviousState) {
  auto machine = makeMachine();
  constexpr int threads = 8, stepsPerThread = 1000;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::atomic<long> lastSeen{-1};
  std::atomic<bool> sawStaleState{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([&] {
      auto impetus = testImpetus();
      for (int i = 0; i < stepsPerThread; ++i) {
        auto result = machine->begin(impetus, [&](const Counter& state, const auto& transition, const RivetVia& via) {
          if (inside.fetch_add(1) != 0) overlapped = true;
          // The state this step sees is the one the previous step left.
          if (state.value != lastSeen.load() + 1) sawStaleState = true;
          lastSeen = state.value;
          auto moved = transition(Counter{state.value + 1}, via);
          inside.fetch_sub(1);
          return moved;
        });
        if (!result) sawStaleState = true;
      }
    });
  for (auto& worker : workers) worker.join();
  EXPECT_FALSE(overlapped.load());
  EXPECT_FALSE(sawStaleState.load());
  EXPECT_EQ(machine->state(), Counter{threads * stepsPerThread});
}

TEST(RivetStateMachineTest, TransitionsAreObservableInTheOrderTheyHappen) {
  auto machine = makeMachine();
  std::vector<std::pair<long, long>> seen;
  std::vector<std::string> vias;
  auto subscription = machine->transitions().subscribe([&](const RivetStateTransition<Counter>& transition, const RivetVia& via) {
    seen.emplace_back(transition.oldState.value, transition.newState.value);
    vias.push_back(via.provenance().front().functionName);
  });
  for (int i = 0; i < 20; ++i)
    (void)machine->begin(testImpetus(), [](const Counter& state, const auto& transition, const RivetVia& via) {
      auto junction = via.fork(std::nullopt, std::nullopt, "Step", "step()", 4);
      return transition(Counter{state.value + 1}, *junction);
    });
  machine->transitions().waitUntilDelivered();
  ASSERT_EQ(seen.size(), 20u);
  for (long i = 0; i < 20; ++i) EXPECT_EQ(seen[i], std::make_pair(i, i + 1));
  EXPECT_EQ(vias.front(), "step()");
}

TEST(RivetStateMachineTest, TheStateIsReadableFromAnyThreadWhileStepsRun) {
  auto machine = makeMachine();
  std::atomic<bool> stop{false};
  std::atomic<bool> wentBackwards{false};
  std::thread reader([&] {
    long previous = 0;
    while (!stop.load()) {
      long now = machine->state().value;
      if (now < previous) wentBackwards = true;
      previous = now;
    }
  });
  for (int i = 0; i < 500; ++i)
    (void)machine->begin(testImpetus(), [](const Counter& state, const auto& transition, const RivetVia& via) {
      return transition(Counter{state.value + 1}, via);
    });
  stop = true;
  reader.join();
  EXPECT_FALSE(wentBackwards.load());
}

TEST(RivetStateMachineTest, ATransitionKeptPastItsStepFails) {
  auto machine = makeMachine();
  Machine::Transition kept;
  (void)machine->begin(testImpetus(), [&](const Counter&, const auto& transition, const RivetVia&) {
    kept = transition;
    return RivetResultVoidSuccess;
  });
  EXPECT_THAT(kept(Counter{99}, testImpetus()), IsRivetFailure(Eq("State transition outside its step")));
  EXPECT_EQ(machine->state(), Counter{0});
}

TEST(RivetStateMachineTest, BeginFromInsideAStepFailsInsteadOfWaitingForever) {
  auto machine = makeMachine();
  std::optional<RivetResult<void>> inner;
  (void)machine->begin(testImpetus(), [&](const Counter&, const auto&, const RivetVia& via) {
    inner.emplace(machine->begin(via, [](const Counter&, const auto&, const RivetVia&) {
      return RivetResultVoidSuccess;
    }));
    return RivetResultVoidSuccess;
  });
  ASSERT_TRUE(inner);
  EXPECT_THAT(*inner, IsRivetFailure(Eq("State machine step began from inside a step")));
}

TEST(RivetStateMachineTest, RequestProductionWithoutAHandlerFails) {
  auto machine = makeMachine();
  EXPECT_THAT(machine->requestProduction(testImpetus()),
              IsRivetFailure(Eq("State machine has no request-production handler")));
}

TEST(RivetStateMachineTest, RequestProductionMovesToTheProducedState) {
  auto machine = makeMachine([](const Counter& state, const RivetVia&, Machine::ProductionCompletion complete) {
    // Produced on another thread, as a platform would.
    std::thread([state, complete] { complete(Counter{state.value + 10}); }).detach();
  });
  EXPECT_THAT(machine->requestProduction(testImpetus()), IsRivetSuccessAndHolds(Eq(Counter{10})));
  EXPECT_EQ(machine->state(), Counter{10});
}

TEST(RivetStateMachineTest, RequestProductionFailsAfterItsTimeOutAndDropsALateProduction) {
  std::shared_ptr<Machine::ProductionCompletion> late = std::make_shared<Machine::ProductionCompletion>();
  auto machine = makeMachine(
      [late](const Counter&, const RivetVia&, Machine::ProductionCompletion complete) { *late = complete; }, 0.05);
  EXPECT_THAT(machine->requestProduction(testImpetus()), IsRivetFailure(Eq("State production timed out")));
  (*late)(Counter{5});
  EXPECT_EQ(machine->state(), Counter{0});
}

TEST(RivetStateMachineTest, AFailedProductionIsWrapped) {
  auto machine = makeMachine([](const Counter&, const RivetVia&, Machine::ProductionCompletion complete) {
    complete(RivetError("Producer broke", std::nullopt, "Producer", "produce()", 3));
  });
  auto result = machine->requestProduction(testImpetus());
  EXPECT_THAT(result, IsRivetFailure(Eq("Producer broke")));
  ASSERT_NE(result.error().cause(), nullptr);
  EXPECT_EQ(result.error().cause()->functionName(), "produce()");
  EXPECT_EQ(machine->state(), Counter{0});
}

}  // namespace
}  // namespace vesp::rivet
