#include "support/platform/NSBundle.h"

namespace vesp::platform {

std::optional<AnyObject> NSBundle::objectForInfoDictionaryKey(const std::string& key) const {
  rivet::RivetMutexLock lock(mutex_);
  auto found = infoDictionary_.find(key);
  if (found == infoDictionary_.end()) return std::nullopt;
  return found->second;
}

void NSBundle::setObjectForInfoDictionaryKey(const std::string& key, std::optional<AnyObject> object) {
  rivet::RivetMutexLock lock(mutex_);
  if (object)
    infoDictionary_.insert_or_assign(key, std::move(*object));
  else
    infoDictionary_.erase(key);
}

}  // namespace vesp::platform
