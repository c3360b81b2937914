// The base class of application-wide managers. The manager framework calls the life-cycle
// operations; each returns success here, except that a manager torn down or failed refuses to
// become active or enter the background ("Manager is not running"). A derived manager overrides
// what it needs, calling the base's version first.
//
// Thread safety: runningState may be read and written from any thread. The life-cycle operations
// run on the thread the framework calls them on.
#pragma once

#include <atomic>
#include <vector>

#include "support/keel/KeelManagerRunningState.h"
#include "support/keel/KeelManaging.h"
#include "support/rivet/RivetResult.h"
#include "support/rivet/RivetVia.h"

namespace vesp::keel {

class KeelManagerBase : public virtual KeelManaging {
 public:
  KeelManagerBase() = default;
  ~KeelManagerBase() override = default;
  KeelManagerBase(const KeelManagerBase&) = delete;
  KeelManagerBase& operator=(const KeelManagerBase&) = delete;

  virtual rivet::RivetResult<void> setUp(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> tearDown(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> allManagersWillSetUp(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> allManagersDidSetUp(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> allManagersWillTearDown(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> allManagersDidTearDown(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> allManagersWillReceiveApplicationDidBecomeActive(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> allManagersDidReceiveApplicationDidBecomeActive(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> allManagersWillReceiveApplicationDidEnterBackground(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> allManagersDidReceiveApplicationDidEnterBackground(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> applicationDidBecomeActive(const rivet::RivetVia& via);
  virtual rivet::RivetResult<void> applicationDidEnterBackground(const rivet::RivetVia& via);

  KeelManagerRunningState runningState() const { return runningState_.load(); }
  void setRunningState(KeelManagerRunningState state) { runningState_.store(state); }

  // Succeeds when every manager this one directly depends upon is in one of the `match` states;
  // otherwise fails naming the first that is not.
  rivet::RivetResult<void> ensureDependencies(const std::vector<KeelManagerRunningState>& match) const;

 private:
  std::atomic<KeelManagerRunningState> runningState_{KeelManagerRunningState::notSetUp};
};

}  // namespace vesp::keel
