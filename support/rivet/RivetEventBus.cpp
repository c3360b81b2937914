#include "support/rivet/RivetEventBus.h"

#include <exception>
#include <utility>

namespace vesp::rivet {

RivetEventBusCore::RivetEventBusCore(std::string identifier, std::shared_ptr<RivetLogging> logger)
    : state_(std::make_shared<State>()), queue_("event bus " + identifier) {
  state_->identifier = std::move(identifier);
  state_->logger = std::move(logger);
}

RivetEventBusCore::~RivetEventBusCore() = default;

RivetSubscription::RivetSubscription(RivetSubscription&& other) noexcept
    : state_(std::move(other.state_)), id_(std::exchange(other.id_, 0)) {}

RivetSubscription& RivetSubscription::operator=(RivetSubscription&& other) noexcept {
  if (this != &other) {
    cancel();
    state_ = std::move(other.state_);
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

void RivetSubscription::cancel() noexcept {
  auto state = state_.lock();
  state_.reset();
  if (!state || id_ == 0) return;
  RivetMutexLock lock(state->mutex);
  state->handlers.erase(id_);
  // Wait out a delivery to this subscriber that is under way, unless it is the caller itself.
  auto self = std::this_thread::get_id();
  while (state->delivering == id_ && state->deliveringOn != self) lock.wait(state->idle);
  id_ = 0;
}

bool RivetSubscription::active() const {
  auto state = state_.lock();
  if (!state) return false;
  RivetMutexLock lock(state->mutex);
  return state->handlers.contains(id_);
}

RivetSubscription RivetEventBusCore::subscribe(Handler handler) {
  RivetMutexLock lock(state_->mutex);
  std::uint64_t id = state_->nextId++;
  state_->handlers.emplace(id, std::make_shared<Handler>(std::move(handler)));
  return RivetSubscription(state_, id);
}

void RivetEventBusCore::publish(std::shared_ptr<const void> event, const RivetVia& via) {
  std::vector<std::uint64_t> recipients;
  {
    RivetMutexLock lock(state_->mutex);
    recipients.reserve(state_->handlers.size());
    for (const auto& entry : state_->handlers) recipients.push_back(entry.first);
  }
  queue_.async([state = state_, recipients = std::move(recipients), event = std::move(event), via = via.retain()] {
    deliver(state, recipients, event, via);
  });
}

void RivetEventBusCore::deliver(const std::shared_ptr<State>& state, const std::vector<std::uint64_t>& recipients,
                                const std::shared_ptr<const void>& event, const std::shared_ptr<const RivetVia>& via) {
  for (std::uint64_t id : recipients) {
    std::shared_ptr<Handler> handler;
    {
      RivetMutexLock lock(state->mutex);
      auto found = state->handlers.find(id);
      if (found == state->handlers.end()) continue;
      handler = found->second;
      state->delivering = id;
      state->deliveringOn = std::this_thread::get_id();
    }
    try {
      (*handler)(event.get(), *via);
    } catch (const std::exception& exception) {
      if (state->logger)
        state->logger->reportFailure(
            RivetError("Event bus subscriber threw", RivetArgs{{"event", state->identifier}, {"what", exception.what()}},
                       "RivetEventBus", "beginPublish(event:via:)", __LINE__),
            *via);
    } catch (...) {
      if (state->logger)
        state->logger->reportFailure(RivetError("Event bus subscriber threw", RivetArgs{{"event", state->identifier}},
                                                "RivetEventBus", "beginPublish(event:via:)", __LINE__),
                                     *via);
    }
    {
      RivetMutexLock lock(state->mutex);
      state->delivering = 0;
      state->deliveringOn = {};
    }
    state->idle.notify_all();
  }
}

void RivetEventBusCore::waitUntilDelivered() {
  if (queue_.isCurrent()) return;
  queue_.sync([] {});
}

std::size_t RivetEventBusCore::subscriberCount() const {
  RivetMutexLock lock(state_->mutex);
  return state_->handlers.size();
}

}  // namespace vesp::rivet
