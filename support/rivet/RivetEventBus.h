// Event buses. A bus delivers every published event to each of its subscribers exactly once, in
// publish order, on the bus's own delivery thread and never inside beginPublish.
//
// Thread safety: publish, subscribe and cancel a subscription from any thread. A subscriber sees
// an event when it was subscribed at the moment of publication and is still subscribed at
// delivery. After a cancel returns (from any thread but inside the subscriber itself) the
// subscriber is not running and will not be called again. Destroying a bus delivers what was already published, then joins its
// thread.
#pragma once

#include <concepts>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/rivet/RivetLogging.h"
#include "support/rivet/RivetMutex.h"
#include "support/rivet/RivetSerialQueue.h"
#include "support/rivet/RivetVia.h"

namespace vesp::rivet {

// The type-level identifier of an event type. By default the event's static `identifier()`;
// specialise it for types that cannot have one.
template <class Event>
struct RivetEventIdentifier {
  static std::string_view identifier() { return Event::identifier(); }
};

// An event that can travel on a bus: a copyable value with a type-level identifier.
template <class Event>
concept RivetEventBusable = std::copy_constructible<Event> && requires {
  { RivetEventIdentifier<Event>::identifier() } -> std::convertible_to<std::string_view>;
};

namespace detail {
struct RivetEventBusState;
}

// One subscription, owned by its token: destroying the token (or calling cancel) unsubscribes,
// with unsubscribe's guarantee. A token may outlive its bus: it then holds nothing and its
// destruction does nothing. A default-made token holds nothing.
class [[nodiscard]] RivetSubscription {
 public:
  RivetSubscription() = default;
  RivetSubscription(const RivetSubscription&) = delete;
  RivetSubscription& operator=(const RivetSubscription&) = delete;
  RivetSubscription(RivetSubscription&& other) noexcept;
  // Cancels what this token held, then takes over `other`'s subscription.
  RivetSubscription& operator=(RivetSubscription&& other) noexcept;
  ~RivetSubscription() { cancel(); }

  // Unsubscribes now: afterwards the subscriber is not running (unless this is called from inside
  // it) and will not be called again. Does nothing when the token holds nothing or the bus is gone.
  void cancel() noexcept;
  // Whether the subscriber is still subscribed to a live bus.
  bool active() const;

 private:
  friend class RivetEventBusCore;
  RivetSubscription(std::weak_ptr<detail::RivetEventBusState> state, std::uint64_t id)
      : state_(std::move(state)), id_(id) {}

  std::weak_ptr<detail::RivetEventBusState> state_;
  std::uint64_t id_ = 0;
};

namespace detail {
// What a bus shares with its delivery tasks and its subscription tokens.
struct RivetEventBusState {
  using Handler = std::function<void(const void* event, const RivetVia& via)>;

  // Constant once the bus is made.
  std::string identifier;
  std::shared_ptr<RivetLogging> logger;

  RivetMutex mutex;
  std::condition_variable idle;  // notified when a delivery to one subscriber ends
  std::map<std::uint64_t, std::shared_ptr<Handler>> handlers RIVET_GUARDED_BY(mutex);
  std::uint64_t nextId RIVET_GUARDED_BY(mutex) = 1;
  std::uint64_t delivering RIVET_GUARDED_BY(mutex) = 0;  // the subscriber being called; 0: none
  std::thread::id deliveringOn RIVET_GUARDED_BY(mutex);
};
}  // namespace detail

// The type-independent machinery behind RivetEventBus.
class RivetEventBusCore {
 public:
  using Handler = detail::RivetEventBusState::Handler;

  RivetEventBusCore(std::string identifier, std::shared_ptr<RivetLogging> logger);
  ~RivetEventBusCore();

  RivetSubscription subscribe(Handler handler);
  void publish(std::shared_ptr<const void> event, const RivetVia& via);
  void waitUntilDelivered();
  bool isDeliveryThread() const { return queue_.isCurrent(); }
  std::size_t subscriberCount() const;

 private:
  using State = detail::RivetEventBusState;
  static void deliver(const std::shared_ptr<State>& state, const std::vector<std::uint64_t>& recipients,
                      const std::shared_ptr<const void>& event, const std::shared_ptr<const RivetVia>& via);

  std::shared_ptr<State> state_;
  RivetSerialQueue queue_;  // last: destroyed first, delivering what is still queued
};

template <RivetEventBusable Event>
class RivetEventBus {
 public:
  using Subscriber = std::function<void(const Event& event, const RivetVia& via)>;

  // The logger receives failures of subscribers (an exception escaping one is reported, and
  // delivery goes on).
  explicit RivetEventBus(std::shared_ptr<RivetLogging> logger)
      : core_(std::string(RivetEventIdentifier<Event>::identifier()), std::move(logger)) {}

  static std::string_view identifier() { return RivetEventIdentifier<Event>::identifier(); }

  // The subscription lasts as long as the returned token.
  RivetSubscription subscribe(Subscriber subscriber) {
    return core_.subscribe([subscriber = std::move(subscriber)](const void* event, const RivetVia& via) {
      subscriber(*static_cast<const Event*>(event), via);
    });
  }

  // Queues the event for delivery and returns at once; the subscribers receive `via`.
  void beginPublish(Event event, const RivetVia& via) {
    core_.publish(std::make_shared<const Event>(std::move(event)), via);
  }

  // Blocks until every event published before the call has been delivered. From the delivery
  // thread itself it returns at once.
  void waitUntilDelivered() { core_.waitUntilDelivered(); }
  bool isDeliveryThread() const { return core_.isDeliveryThread(); }
  std::size_t subscriberCount() const { return core_.subscriberCount(); }

 private:
  RivetEventBusCore core_;
};

}  // namespace vesp::rivet
