#include "support/platform/Platform.h"

#include "support/rivet/RivetFatal.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::platform {

namespace {
rivet::RivetMutex defaultMutex;
std::shared_ptr<Platform>& defaultPlatform() RIVET_REQUIRES(defaultMutex) {
  static std::shared_ptr<Platform> platform;
  return platform;
}
}  // namespace

std::shared_ptr<rivet::RivetDispatchGroup> Platform::dispatch_group_create() {
  return std::make_shared<rivet::RivetDispatchGroup>();
}

std::shared_ptr<Platform> Platform::Default() {
  rivet::RivetMutexLock lock(defaultMutex);
  if (!defaultPlatform())
    rivet::fatalError("No default platform is installed: call platform::Platform::installDefault at start-up");
  return defaultPlatform();
}

void Platform::installDefault(std::shared_ptr<Platform> platform) {
  rivet::RivetMutexLock lock(defaultMutex);
  defaultPlatform() = std::move(platform);
}

bool Platform::hasDefault() {
  rivet::RivetMutexLock lock(defaultMutex);
  return defaultPlatform() != nullptr;
}

PlatformWrapper::PlatformWrapper(std::shared_ptr<Platform> target) : target_(std::move(target)) {
  if (!target_) rivet::fatalError("PlatformWrapper made without a target platform");
}

}  // namespace vesp::platform
