#include "support/rivet/RivetEventBus.h"

#include <exception>

namespace rivet {

RivetEventBusCore::RivetEventBusCore(std::string identifier, std::shared_ptr<RivetLogging> logger)
    : state_(std::make_shared<State>()), queue_("event bus " + identifier) {
  state_->identifier = std::move(identifier);
  state_->logger = std::move(logger);
}

RivetEventBusCore::~RivetEventBusCore() = default;

RivetSubscription RivetEventBusCore::subscribe(Handler handler) {
  std::lock_guard lock(state_->mutex);
  std::uint64_t id = state_->nextId++;
  state_->handlers.emplace(id, std::make_shared<Handler>(std::move(handler)));
  return RivetSubscription{id};
}

void RivetEventBusCore::unsubscribe(RivetSubscription subscription) {
  std::unique_lock lock(state_->mutex);
  state_->handlers.erase(subscription.id);
  // Wait out a delivery to this subscriber that is under way, unless it is the caller itself.
  if (!queue_.isCurrent())
    state_->idle.wait(lock, [&] { return state_->delivering != subscription.id; });
}

void RivetEventBusCore::publish(std::shared_ptr<const void> event, const RivetVia& via) {
  std::vector<std::uint64_t> recipients;
  {
    std::lock_guard lock(state_->mutex);
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
      std::lock_guard lock(state->mutex);
      auto found = state->handlers.find(id);
      if (found == state->handlers.end()) continue;
      handler = found->second;
      state->delivering = id;
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
      std::lock_guard lock(state->mutex);
      state->delivering = 0;
    }
    state->idle.notify_all();
  }
}

void RivetEventBusCore::waitUntilDelivered() {
  if (queue_.isCurrent()) return;
  queue_.sync([] {});
}

std::size_t RivetEventBusCore::subscriberCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->handlers.size();
}

}  // namespace rivet
