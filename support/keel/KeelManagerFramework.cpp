#include "support/keel/KeelManagerFramework.h"

#include <algorithm>
#include <map>

namespace vesp::keel {

using rivet::RivetArgs;
using rivet::RivetResult;
using rivet::RivetResultVoidSuccess;
using rivet::RivetValue;
using rivet::RivetVia;

namespace {
constexpr const char* kFile = "KeelManagerFramework";
}

RivetResult<void> KeelManagerFramework::registerManager(std::shared_ptr<KeelManagerBase> manager) {
  const char* function = "registerManager(_:)";
  if (!manager) return RivetResult<void>("Cannot register a null manager", RivetArgs{}, kFile, function, __LINE__);
  rivet::RivetMutexLock lock(mutex_);
  if (setUp_)
    return RivetResult<void>("Cannot register a manager after set-up", RivetArgs{{"manager", manager->identifier()}},
                             kFile, function, __LINE__);
  for (const auto& registered : managers_)
    if (registered == manager || registered->identifier() == manager->identifier())
      return RivetResult<void>("A manager with this identifier is already registered",
                               RivetArgs{{"manager", manager->identifier()}}, kFile, function, __LINE__);
  managers_.push_back(std::move(manager));
  return RivetResultVoidSuccess;
}

std::vector<std::shared_ptr<KeelManagerBase>> KeelManagerFramework::managers() const {
  rivet::RivetMutexLock lock(mutex_);
  return managers_;
}

RivetResult<std::vector<std::shared_ptr<KeelManagerBase>>> KeelManagerFramework::dependencyOrder() const {
  using Order = std::vector<std::shared_ptr<KeelManagerBase>>;
  const char* function = "dependencyOrder()";
  Order registered = managers();
  std::map<const KeelManagerBase*, std::size_t> index;
  for (std::size_t i = 0; i < registered.size(); ++i) index[registered[i].get()] = i;

  // Dependencies as indices, checked before any ordering.
  std::vector<std::vector<std::size_t>> dependencies(registered.size());
  for (std::size_t i = 0; i < registered.size(); ++i) {
    for (const auto& dependency : registered[i]->managersDirectlyDependedUpon()) {
      auto found = index.find(dependency.get());
      if (found == index.end())
        return RivetResult<Order>(
            "Manager dependency is not registered",
            RivetArgs{{"manager", registered[i]->identifier()},
                      {"dependency", dependency ? RivetValue(dependency->identifier()) : RivetValue()}},
            kFile, function, __LINE__);
      dependencies[i].push_back(found->second);
    }
  }

  // Depth-first, without recursion, so that a long chain cannot exhaust the stack.
  enum class Mark { unvisited, visiting, done };
  std::vector<Mark> marks(registered.size(), Mark::unvisited);
  Order order;
  for (std::size_t root = 0; root < registered.size(); ++root) {
    if (marks[root] != Mark::unvisited) continue;
    std::vector<std::pair<std::size_t, std::size_t>> stack{{root, 0}};
    marks[root] = Mark::visiting;
    while (!stack.empty()) {
      auto& [node, next] = stack.back();
      if (next < dependencies[node].size()) {
        std::size_t dependency = dependencies[node][next++];
        if (marks[dependency] == Mark::visiting) {
          RivetValue::List cycle;
          bool inCycle = false;
          for (const auto& frame : stack) {
            if (frame.first == dependency) inCycle = true;
            if (inCycle) cycle.emplace_back(registered[frame.first]->identifier());
          }
          cycle.emplace_back(registered[dependency]->identifier());
          return RivetResult<Order>("Manager dependency cycle", RivetArgs{{"cycle", RivetValue(std::move(cycle))}},
                                    kFile, function, __LINE__);
        }
        if (marks[dependency] == Mark::unvisited) {
          marks[dependency] = Mark::visiting;
          stack.emplace_back(dependency, 0);
        }
      } else {
        marks[node] = Mark::done;
        order.push_back(registered[node]);
        stack.pop_back();
      }
    }
  }
  return order;
}

RivetResult<void> KeelManagerFramework::drive(const char* functionName, const RivetVia& via, Operation will,
                                              Operation operation, Operation did, KeelManagerRunningState reached,
                                              bool reverse) {
  auto junction = via.fork(std::nullopt, std::nullopt, kFile, functionName, __LINE__);
  auto ordered = dependencyOrder();
  if (!ordered) return RivetResult<void>(ordered.error(), RivetArgs{}, kFile, functionName, __LINE__);
  auto managers = std::move(ordered).value();
  if (reverse) std::reverse(managers.begin(), managers.end());

  auto fail = [&](const std::shared_ptr<KeelManagerBase>& manager, const rivet::RivetError& error) {
    manager->setRunningState(KeelManagerRunningState::failed);
    return RivetResult<void>(error, RivetArgs{{"manager", manager->identifier()}}, kFile, functionName, __LINE__);
  };
  for (const auto& manager : managers)
    if (auto result = ((*manager).*will)(*junction); !result) return fail(manager, result.error());
  for (const auto& manager : managers) {
    if (auto result = ((*manager).*operation)(*junction); !result) return fail(manager, result.error());
    manager->setRunningState(reached);
  }
  for (const auto& manager : managers)
    if (auto result = ((*manager).*did)(*junction); !result) return fail(manager, result.error());
  return RivetResultVoidSuccess;
}

RivetResult<void> KeelManagerFramework::setUpAll(const RivetVia& via) {
  {
    rivet::RivetMutexLock lock(mutex_);
    if (setUp_) return RivetResult<void>("Managers are already set up", RivetArgs{}, kFile, "setUpAll(via:)", __LINE__);
    setUp_ = true;
  }
  return drive("setUpAll(via:)", via, &KeelManagerBase::allManagersWillSetUp, &KeelManagerBase::setUp,
               &KeelManagerBase::allManagersDidSetUp, KeelManagerRunningState::setUp, false);
}

RivetResult<void> KeelManagerFramework::applicationDidBecomeActive(const RivetVia& via) {
  const char* function = "applicationDidBecomeActive(via:)";
  {
    rivet::RivetMutexLock lock(mutex_);
    if (!setUp_) return RivetResult<void>("Managers are not set up", RivetArgs{}, kFile, function, __LINE__);
  }
  return drive(function, via, &KeelManagerBase::allManagersWillReceiveApplicationDidBecomeActive,
               &KeelManagerBase::applicationDidBecomeActive,
               &KeelManagerBase::allManagersDidReceiveApplicationDidBecomeActive, KeelManagerRunningState::active,
               false);
}

RivetResult<void> KeelManagerFramework::applicationDidEnterBackground(const RivetVia& via) {
  const char* function = "applicationDidEnterBackground(via:)";
  {
    rivet::RivetMutexLock lock(mutex_);
    if (!setUp_) return RivetResult<void>("Managers are not set up", RivetArgs{}, kFile, function, __LINE__);
  }
  return drive(function, via, &KeelManagerBase::allManagersWillReceiveApplicationDidEnterBackground,
               &KeelManagerBase::applicationDidEnterBackground,
               &KeelManagerBase::allManagersDidReceiveApplicationDidEnterBackground,
               KeelManagerRunningState::background, false);
}

RivetResult<void> KeelManagerFramework::tearDownAll(const RivetVia& via) {
  const char* function = "tearDownAll(via:)";
  {
    rivet::RivetMutexLock lock(mutex_);
    if (!setUp_) return RivetResult<void>("Managers are not set up", RivetArgs{}, kFile, function, __LINE__);
    setUp_ = false;
  }
  return drive(function, via, &KeelManagerBase::allManagersWillTearDown, &KeelManagerBase::tearDown,
               &KeelManagerBase::allManagersDidTearDown, KeelManagerRunningState::tornDown, true);
}

}  // namespace vesp::keel
