// The manager framework: a host registers its managers once, and the framework drives them, in
// dependency order, through set-up, activation, background and tear-down, keeping each manager's
// running state.
//
// Order: for set-up, activation and background, every manager's "will" operation, then the
// operation itself manager by manager, then every "did" operation, each round in dependency order
// (a manager after those it depends upon); tear-down runs the same rounds in reverse order.
// A failing operation stops the round: the manager's state becomes `failed` and the framework
// returns the failure wrapped with its own context.
//
// Thread safety: the framework is driven from one thread at a time (the host's main thread).
#pragma once

#include <memory>
#include <vector>

#include "support/keel/KeelManagerBase.h"
#include "support/rivet/RivetMutex.h"
#include "support/rivet/RivetResult.h"
#include "support/rivet/RivetVia.h"

namespace vesp::keel {

class KeelManagerFramework {
 public:
  // Fails for a null manager, a second manager with the same identifier, or a registration after
  // set-up.
  rivet::RivetResult<void> registerManager(std::shared_ptr<KeelManagerBase> manager);
  // The registered managers, in registration order.
  std::vector<std::shared_ptr<KeelManagerBase>> managers() const;

  // The registered managers with every manager after those it depends upon (registration order
  // where dependencies allow). Fails with "Manager dependency cycle" (args: the cycle's
  // identifiers) or "Manager dependency is not registered" (args: manager and dependency).
  rivet::RivetResult<std::vector<std::shared_ptr<KeelManagerBase>>> dependencyOrder() const;

  rivet::RivetResult<void> setUpAll(const rivet::RivetVia& via);
  rivet::RivetResult<void> applicationDidBecomeActive(const rivet::RivetVia& via);
  rivet::RivetResult<void> applicationDidEnterBackground(const rivet::RivetVia& via);
  rivet::RivetResult<void> tearDownAll(const rivet::RivetVia& via);

 private:
  using Operation = rivet::RivetResult<void> (KeelManagerBase::*)(const rivet::RivetVia&);
  rivet::RivetResult<void> drive(const char* functionName, const rivet::RivetVia& via, Operation will,
                                 Operation operation, Operation did, KeelManagerRunningState reached,
                                 bool reverse);

  mutable rivet::RivetMutex mutex_;
  std::vector<std::shared_ptr<KeelManagerBase>> managers_ RIVET_GUARDED_BY(mutex_);
  bool setUp_ RIVET_GUARDED_BY(mutex_) = false;
};

}  // namespace vesp::keel
