#include "support/platform/Platform.h"

#include <mutex>

#include "support/rivet/RivetFatal.h"

namespace vesp::platform {

namespace {
std::mutex defaultMutex;
std::shared_ptr<Platform>& defaultPlatform() {
  static std::shared_ptr<Platform> platform;
  return platform;
}
}  // namespace

std::shared_ptr<rivet::RivetDispatchGroup> Platform::dispatch_group_create() {
  return std::make_shared<rivet::RivetDispatchGroup>();
}

std::shared_ptr<Platform> Platform::Default() {
  std::lock_guard lock(defaultMutex);
  if (!defaultPlatform())
    rivet::fatalError("No default platform is installed: call platform::Platform::installDefault at start-up");
  return defaultPlatform();
}

void Platform::installDefault(std::shared_ptr<Platform> platform) {
  std::lock_guard lock(defaultMutex);
  defaultPlatform() = std::move(platform);
}

bool Platform::hasDefault() {
  std::lock_guard lock(defaultMutex);
  return defaultPlatform() != nullptr;
}

PlatformWrapper::PlatformWrapper(std::shared_ptr<Platform> target) : target_(std::move(target)) {
  if (!target_) rivet::fatalError("PlatformWrapper made without a target platform");
}

}  // namespace vesp::platform
