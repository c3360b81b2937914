// The application's bundle: its information dictionary.
//
// Thread safety: reads and writes from any thread.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "support/platform/AnyObject.h"

namespace vesp::platform {

class NSBundle {
 public:
  virtual ~NSBundle() = default;

  // The information dictionary's value for `key`, or nothing.
  virtual std::optional<AnyObject> objectForInfoDictionaryKey(const std::string& key) const;

  // Sets (or, with nothing, removes) an entry of the information dictionary.
  void setObjectForInfoDictionaryKey(const std::string& key, std::optional<AnyObject> object);

 private:
  mutable std::mutex mutex_;
  std::map<std::string, AnyObject> infoDictionary_;
};

}  // namespace vesp::platform
