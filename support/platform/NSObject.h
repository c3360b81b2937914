// The root of the platform's reference objects: shared ownership and a readable description.
#pragma once

#include <memory>
#include <string>

namespace vesp::platform {

class NSObject : public std::enable_shared_from_this<NSObject> {
 public:
  virtual ~NSObject() = default;
  // A short text naming the object for logs, e.g. "<EKEvent 'Standup' 2026-11-23T09:00:00Z>".
  virtual std::string description() const;
};

}  // namespace vesp::platform
