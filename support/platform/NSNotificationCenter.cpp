#include "support/platform/NSNotificationCenter.h"

#include <algorithm>

namespace vesp::platform {

std::string Notification::description() const {
  return "Notification(" + name + ", " + (object ? object->description() : std::string("nil")) + ")";
}

void NSNotificationCenter::addObserver(std::weak_ptr<const void> observer, std::string selectorName, Selector selector,
                                       std::optional<std::string> name, const NSObject* object) {
  const void* identity = observer.lock().get();
  rivet::RivetMutexLock lock(mutex_);
  entries_.push_back(Entry{std::move(observer), identity, std::move(selectorName),
                           std::make_shared<Selector>(std::move(selector)), std::move(name), object});
}

void NSNotificationCenter::removeObserver(const void* observer, std::optional<std::string> name,
                                          const NSObject* object) {
  rivet::RivetMutexLock lock(mutex_);
  std::erase_if(entries_, [&](const Entry& entry) {
    return entry.identity == observer && (!name || entry.name == name) && (!object || entry.object == object);
  });
}

void NSNotificationCenter::postNotificationName(const std::string& name, std::shared_ptr<NSObject> object) {
  Notification notification{name, object};
  // Collect the matching live observers first: they are called without the lock held.
  std::vector<std::pair<std::shared_ptr<const void>, std::shared_ptr<Selector>>> calls;
  {
    rivet::RivetMutexLock lock(mutex_);
    std::erase_if(entries_, [](const Entry& entry) { return entry.observer.expired(); });
    for (const auto& entry : entries_) {
      if (entry.name && *entry.name != name) continue;
      if (entry.object && entry.object != object.get()) continue;
      if (auto alive = entry.observer.lock()) calls.emplace_back(std::move(alive), entry.selector);
    }
  }
  for (const auto& [observer, selector] : calls) (*selector)(notification);
}

std::vector<NSNotificationCenter::Observation> NSNotificationCenter::observations() const {
  rivet::RivetMutexLock lock(mutex_);
  std::vector<Observation> list;
  for (const auto& entry : entries_)
    list.push_back(Observation{entry.identity, entry.selectorName, entry.name, entry.object, !entry.observer.expired()});
  return list;
}

}  // namespace vesp::platform
