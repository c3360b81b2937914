// The protocol of an application-wide manager: its identity and the managers it needs.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace vesp::keel {

class KeelManagerBase;

class KeelManaging {
 public:
  virtual ~KeelManaging() = default;

  // A reverse-DNS text naming the manager; unique among the managers of one framework.
  virtual std::string identifier() const = 0;
  // The managers that must be set up before this one and torn down after it.
  virtual std::vector<std::shared_ptr<KeelManagerBase>> managersDirectlyDependedUpon() const = 0;
};

}  // namespace vesp::keel
