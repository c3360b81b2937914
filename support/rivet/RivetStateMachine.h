// A state machine: the current state, and a serial queue on which steps run one at a time, each
// seeing the state left by the previous one. Transitions are published, in the order they happen,
// on the machine's transition bus.
//
// Thread safety: begin, state and requestProduction may be called from any thread. A step must
// not call begin or requestProduction on its own machine: that call fails instead of waiting on
// itself forever.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <concepts>
#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "support/rivet/RivetEventBus.h"
#include "support/rivet/RivetLogging.h"
#include "support/rivet/RivetMutex.h"
#include "support/rivet/RivetResult.h"
#include "support/rivet/RivetSerialQueue.h"
#include "support/rivet/RivetVia.h"

namespace vesp::rivet {

// The type-level identifier of a state type. By default the state's static `identifier()`;
// specialise it for enumerations, which cannot have one.
template <class State>
struct RivetStateIdentifier {
  static std::string_view identifier() { return State::identifier(); }
};

// A state that a machine can hold: a copyable, comparable value with a type-level identifier.
template <class State>
concept RivetStateCapturing = std::copyable<State> && std::equality_comparable<State> && requires {
  { RivetStateIdentifier<State>::identifier() } -> std::convertible_to<std::string_view>;
};

// One transition of a machine, as published on its transition bus.
template <RivetStateCapturing State>
struct RivetStateTransition {
  State oldState;
  State newState;

  static std::string_view identifier() {
    static const std::string text = "com.ambrel.rivet.event.state-transition." +
                                    std::string(RivetStateIdentifier<State>::identifier());
    return text;
  }
  friend bool operator==(const RivetStateTransition&, const RivetStateTransition&) = default;
};

template <RivetStateCapturing State>
class RivetStateMachine {
 public:
  // Moves the machine to a new state; returns the void result. Valid only while its step runs.
  using Transition = std::function<RivetResult<void>(State newState, const RivetVia& via)>;
  // One step: the current state, the transition operation and a via.
  using Step = std::function<RivetResult<void>(const State& state, const Transition& transition, const RivetVia& via)>;
  // Hands a produced state (or a failure) back to the machine; callable from any thread, once.
  using ProductionCompletion = std::function<void(RivetResult<State> produced)>;
  // Asked to produce a state on request: the current state, a via and the completion.
  using RequestProductionHandler =
      std::function<void(const State& state, const RivetVia& via, ProductionCompletion completion)>;

  // An empty handler (nullptr) means none.
  RivetStateMachine(State initialState, std::shared_ptr<RivetLogging> logger,
                    RequestProductionHandler requestProductionHandler, double requestProductionTimeout)
      : state_(std::move(initialState)),
        requestProductionHandler_(std::move(requestProductionHandler)),
        requestProductionTimeout_(requestProductionTimeout),
        transitions_(std::move(logger)),
        queue_("state machine " + std::string(identifier())) {}

  RivetStateMachine(const RivetStateMachine&) = delete;
  RivetStateMachine& operator=(const RivetStateMachine&) = delete;

  static std::string_view identifier() { return RivetStateIdentifier<State>::identifier(); }

  // The current state, from any thread.
  State state() const {
    RivetMutexLock lock(stateMutex_);
    return state_;
  }

  double requestProductionTimeout() const { return requestProductionTimeout_; }
  bool hasRequestProductionHandler() const { return static_cast<bool>(requestProductionHandler_); }

  // Where the host observes transitions (old state, new state, and the via of the transition).
  RivetEventBus<RivetStateTransition<State>>& transitions() { return transitions_; }

  // Runs `onSerialQueue` on the machine's serial queue and returns the step's own result; the
  // caller blocks until it is there. The step receives a fork of `via`.
  RivetResult<void> begin(const RivetVia& via, Step onSerialQueue) {
    if (queue_.isCurrent())
      return RivetResult<void>("State machine step began from inside a step",
                               RivetArgs{{"stateIdentifier", std::string(identifier())}}, "RivetStateMachine",
                               "begin(via:onSerialQueue:)", __LINE__);
    auto junction = via.fork(std::nullopt, std::nullopt, "RivetStateMachine", "begin(via:onSerialQueue:)", __LINE__);
    std::optional<RivetResult<void>> result;
    queue_.sync([&] { result.emplace(runStep(onSerialQueue, *junction)); });
    return std::move(*result);
  }

  // Asks the request-production handler for a state, waits up to the production time-out for it,
  // and moves the machine to the produced state. Fails when there is no handler, when the handler
  // produces a failure (wrapped) and when the time runs out; a production that arrives late is
  // dropped. Runs on the serial queue like a step.
  RivetResult<State> requestProduction(const RivetVia& via) {
    const char* function = "requestProduction(via:)";
    if (!requestProductionHandler_)
      return RivetResult<State>("State machine has no request-production handler",
                                RivetArgs{{"stateIdentifier", std::string(identifier())}}, "RivetStateMachine",
                                function, __LINE__);
    if (queue_.isCurrent())
      return RivetResult<State>("State machine production requested from inside a step",
                                RivetArgs{{"stateIdentifier", std::string(identifier())}}, "RivetStateMachine",
                                function, __LINE__);
    auto junction = via.fork(std::nullopt, std::nullopt, "RivetStateMachine", function, __LINE__);
    std::optional<RivetResult<State>> outcome;
    queue_.sync([&] { outcome.emplace(produce(*junction)); });
    return std::move(*outcome);
  }

 private:
  struct ProductionCell {
    RivetMutex mutex;
    std::condition_variable arrived;  // notified under mutex when the production arrives
    std::optional<RivetResult<State>> produced RIVET_GUARDED_BY(mutex);
  };

  RivetResult<void> runStep(const Step& step, const RivetVia& via) {
    State current = state();
    auto stepThread = std::this_thread::get_id();
    bool stepRunning = true;
    Transition transition = [&, stepThread](State newState, const RivetVia& transitionVia) -> RivetResult<void> {
      if (!stepRunning || std::this_thread::get_id() != stepThread)
        return RivetResult<void>("State transition outside its step",
                                 RivetArgs{{"stateIdentifier", std::string(identifier())}}, "RivetStateMachine",
                                 "transition(to:via:)", __LINE__);
      transitionTo(std::move(newState), transitionVia);
      return RivetResultVoidSuccess;
    };
    RivetResult<void> result = step(current, transition, via);
    stepRunning = false;
    return result;
  }

  void transitionTo(State newState, const RivetVia& via) {
    std::optional<State> oldState;
    {
      RivetMutexLock lock(stateMutex_);
      oldState.emplace(state_);
      state_ = newState;
    }
    transitions_.beginPublish(RivetStateTransition<State>{std::move(*oldState), std::move(newState)}, via);
  }

  RivetResult<State> produce(const RivetVia& via) {
    const char* function = "requestProduction(via:)";
    auto cell = std::make_shared<ProductionCell>();
    requestProductionHandler_(state(), via, [cell](RivetResult<State> produced) {
      RivetMutexLock lock(cell->mutex);
      if (!cell->produced) cell->produced.emplace(std::move(produced));
      cell->arrived.notify_all();
    });
    RivetMutexLock lock(cell->mutex);
    double seconds = std::isnan(requestProductionTimeout_) || requestProductionTimeout_ < 0
                         ? 0.0
                         : std::min(requestProductionTimeout_, 1e9);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                           std::chrono::duration<double>(seconds));
    while (!cell->produced)
      if (!lock.waitUntil(cell->arrived, deadline)) break;
    if (!cell->produced) {
      // Mark the cell answered so that a late production is dropped.
      cell->produced.emplace(RivetError("timed out", std::nullopt, "RivetStateMachine", function, __LINE__));
      return RivetResult<State>("State production timed out",
                                RivetArgs{{"stateIdentifier", std::string(identifier())},
                                          {"timeout", requestProductionTimeout_}},
                                "RivetStateMachine", function, __LINE__);
    }
    RivetResult<State> produced = std::move(*cell->produced);
    lock.unlock();
    if (!produced.has_value())
      return RivetResult<State>(produced.error(), RivetArgs{{"stateIdentifier", std::string(identifier())}},
                                "RivetStateMachine", function, __LINE__);
    transitionTo(produced.value(), via);
    return produced;
  }

  mutable RivetMutex stateMutex_;
  State state_ RIVET_GUARDED_BY(stateMutex_);
  RequestProductionHandler requestProductionHandler_;  // empty: none
  double requestProductionTimeout_;
  RivetEventBus<RivetStateTransition<State>> transitions_;
  RivetSerialQueue queue_;  // last: destroyed first, finishing queued steps while the rest is alive
};

}  // namespace vesp::rivet
