// The notification centre: observers registered by name and object, called on the posting thread
// before the post returns.
//
// Observers are held weakly, as the platform does: an observer that is destroyed without removing
// itself is simply skipped. The object of a registration is matched by identity and not retained.
//
// Thread safety: every operation may be called from any thread. An observer may add or remove
// observers, and post, from inside its own call.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/platform/NSObject.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::platform {

struct Notification {
  std::string name;
  std::shared_ptr<NSObject> object;  // the poster, or null

  std::string description() const;
};

class NSNotificationCenter {
 public:
  using Selector = std::function<void(const Notification&)>;

  // One registration, as listed for inspection.
  struct Observation {
    const void* observer;
    std::string selectorName;
    std::optional<std::string> name;  // absent: every name
    const NSObject* object;           // null: every object
    bool observerAlive;
  };

  virtual ~NSNotificationCenter() = default;

  // Registers `observer` to have `selector` called for notifications named `name` (every name
  // when absent) posted with `object` (any object when null). `selectorName` names the entry
  // point, for inspection. The centre keeps only a weak reference to the observer, and calls the
  // selector only while the observer is alive.
  virtual void addObserver(std::weak_ptr<const void> observer, std::string selectorName, Selector selector,
                           std::optional<std::string> name, const NSObject* object);
  // Removes the observer's registrations that match `name` (all names when absent) and `object`
  // (all objects when null).
  virtual void removeObserver(const void* observer, std::optional<std::string> name, const NSObject* object);
  // Calls every matching live observer on this thread, in registration order, then returns.
  virtual void postNotificationName(const std::string& name, std::shared_ptr<NSObject> object);

  // The registrations, in order; dead observers included until their entries are pruned by a post.
  std::vector<Observation> observations() const;

 private:
  struct Entry {
    std::weak_ptr<const void> observer;
    const void* identity;
    std::string selectorName;
    std::shared_ptr<Selector> selector;
    std::optional<std::string> name;
    const NSObject* object;
  };

  mutable rivet::RivetMutex mutex_;
  std::vector<Entry> entries_ RIVET_GUARDED_BY(mutex_);
};

}  // namespace vesp::platform
