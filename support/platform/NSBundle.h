// The application's bundle: its information dictionary.
//
// Thread safety: reads and writes from any thread.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "support/platform/AnyObject.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::platform {

class NSBundle {
 public:
  virtual ~NSBundle() = default;

  // The information dictionary's value for `key`, or nothing.
  virtual std::optional<AnyObject> objectForInfoDictionaryKey(const std::string& key) const;

  // Sets (or, with nothing, removes) an entry of the information dictionary.
  void setObjectForInfoDictionaryKey(const std::string& key, std::optional<AnyObject> object);

 private:
  mutable rivet::RivetMutex mutex_;
  std::map<std::string, AnyObject> infoDictionary_ RIVET_GUARDED_BY(mutex_);
};

}  // namespace vesp::platform
