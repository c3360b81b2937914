#include "support/keel/KeelManagerBase.h"

#include <algorithm>
#include <string>

namespace vesp::keel {

using rivet::RivetResult;
using rivet::RivetResultVoidSuccess;
using rivet::RivetVia;

RivetResult<void> KeelManagerBase::setUp(const RivetVia&) { return RivetResultVoidSuccess; }
RivetResult<void> KeelManagerBase::tearDown(const RivetVia&) { return RivetResultVoidSuccess; }
RivetResult<void> KeelManagerBase::allManagersWillSetUp(const RivetVia&) { return RivetResultVoidSuccess; }
RivetResult<void> KeelManagerBase::allManagersDidSetUp(const RivetVia&) { return RivetResultVoidSuccess; }
RivetResult<void> KeelManagerBase::allManagersWillTearDown(const RivetVia&) { return RivetResultVoidSuccess; }
RivetResult<void> KeelManagerBase::allManagersDidTearDown(const RivetVia&) { return RivetResultVoidSuccess; }
RivetResult<void> KeelManagerBase::allManagersWillReceiveApplicationDidBecomeActive(const RivetVia&) {
  return RivetResultVoidSuccess;
}
RivetResult<void> KeelManagerBase::allManagersDidReceiveApplicationDidBecomeActive(const RivetVia&) {
  return RivetResultVoidSuccess;
}
RivetResult<void> KeelManagerBase::allManagersWillReceiveApplicationDidEnterBackground(const RivetVia&) {
  return RivetResultVoidSuccess;
}
RivetResult<void> KeelManagerBase::allManagersDidReceiveApplicationDidEnterBackground(const RivetVia&) {
  return RivetResultVoidSuccess;
}
namespace {
// A manager that was torn down, or failed, does not take part in the application's life any more.
RivetResult<void> requireRunning(const KeelManagerBase& manager, const char* function) {
  auto state = manager.runningState();
  if (state == KeelManagerRunningState::tornDown || state == KeelManagerRunningState::failed)
    return RivetResult<void>("Manager is not running",
                             rivet::RivetArgs{{"manager", manager.identifier()},
                                              {"runningState", std::string(description(state))}},
                             "KeelManagerBase", function, __LINE__);
  return RivetResultVoidSuccess;
}
}  // namespace

RivetResult<void> KeelManagerBase::applicationDidBecomeActive(const RivetVia&) {
  return requireRunning(*this, "applicationDidBecomeActive(via:)");
}
RivetResult<void> KeelManagerBase::applicationDidEnterBackground(const RivetVia&) {
  return requireRunning(*this, "applicationDidEnterBackground(via:)");
}

RivetResult<void> KeelManagerBase::ensureDependencies(const std::vector<KeelManagerRunningState>& match) const {
  for (const auto& dependency : managersDirectlyDependedUpon()) {
    if (!dependency)
      return RivetResult<void>("Manager depends upon a null manager", rivet::RivetArgs{{"manager", identifier()}},
                               "KeelManagerBase", "ensureDependencies(match:)", __LINE__);
    auto state = dependency->runningState();
    if (std::find(match.begin(), match.end(), state) == match.end())
      return RivetResult<void>("Dependency is not in a required running state",
                               rivet::RivetArgs{{"manager", identifier()},
                                                {"dependency", dependency->identifier()},
                                                {"runningState", std::string(description(state))}},
                               "KeelManagerBase", "ensureDependencies(match:)", __LINE__);
  }
  return RivetResultVoidSuccess;
}

}  // namespace vesp::keel
