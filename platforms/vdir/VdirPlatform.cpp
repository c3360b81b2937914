#include "platforms/vdir/VdirPlatform.h"

#include "platforms/memory/MemoryPlatform.h"
#include "platforms/vdir/VdirEventStore.h"
#include "platforms/vdir/VdirStore.h"

namespace vesp::vdir {

std::shared_ptr<VdirPlatform> VdirPlatform::make(VdirPlatformOptions options) {
  return std::shared_ptr<VdirPlatform>(new VdirPlatform(std::move(options)));
}

VdirPlatform::VdirPlatform(VdirPlatformOptions options) : services_(std::make_shared<VdirServices>()) {
  store_ = VdirStore::make(std::move(options.store));
  services_->source = store_;
  services_->store = store_;
  services_->access = std::make_shared<VdirAccess>(
      options.accessFile.empty() ? VdirAccess::defaultFile() : options.accessFile, options.applicationIdentifier);
  services_->center = std::make_shared<platform::NSNotificationCenter>();
  services_->bundle = std::make_shared<platform::NSBundle>();
  services_->consentHandler = std::move(options.consentHandler);
  screens_ = options.screens ? std::move(options.screens) : memory::MemoryPlatform::make();
}

std::shared_ptr<platform::EKEventStore> VdirPlatform::makeEventStore() { return VdirEventStore::make(services_); }

platform::EKAuthorizationStatus VdirPlatform::authorizationStatusForEntityType(platform::EKEntityType entityType) {
  return services_->authorizationStatus(entityType);
}

std::shared_ptr<platform::EKEvent> VdirPlatform::eventWithEventStore(const std::shared_ptr<platform::EKEventStore>&) {
  return std::make_shared<VdirNewEvent>();
}

std::shared_ptr<platform::EKReminder> VdirPlatform::reminderWithEventStore(
    const std::shared_ptr<platform::EKEventStore>&) {
  return std::make_shared<VdirNewReminder>();
}

std::shared_ptr<platform::EKEventViewController> VdirPlatform::makeEventViewController() {
  return screens_->makeEventViewController();
}

std::shared_ptr<platform::EKEventEditViewController> VdirPlatform::makeEventEditViewController() {
  return screens_->makeEventEditViewController();
}

std::shared_ptr<platform::UINavigationController> VdirPlatform::makeNavigationController(
    std::shared_ptr<platform::UIViewController> rootViewController) {
  return screens_->makeNavigationController(std::move(rootViewController));
}

std::shared_ptr<platform::EKCalendarChooser> VdirPlatform::makeCalendarChooser(
    platform::EKCalendarChooserSelectionStyle selectionStyle, platform::EKCalendarChooserDisplayStyle displayStyle,
    platform::EKEntityType entityType, std::shared_ptr<platform::EKEventStore> eventStore) {
  return screens_->makeCalendarChooser(selectionStyle, displayStyle, entityType, std::move(eventStore));
}

std::shared_ptr<platform::NSNotificationCenter> VdirPlatform::defaultCenter() { return services_->center; }
std::shared_ptr<platform::NSBundle> VdirPlatform::mainBundle() { return services_->bundle; }
const std::shared_ptr<VdirStore>& VdirPlatform::store() const { return store_; }
const std::shared_ptr<VdirAccess>& VdirPlatform::access() const { return services_->access; }
std::vector<VdirDiagnostic> VdirPlatform::diagnostics() const { return store_->diagnostics(); }
bool VdirPlatform::refresh() { return store_->refresh(); }
VdirCacheStatus VdirPlatform::cacheStatus() const { return store_->cacheStatus(); }
void VdirPlatform::flushCache() { store_->flushCache(); }

void VdirPlatform::setInfoDictionaryValue(const std::string& key, std::optional<platform::AnyObject> value) {
  services_->bundle->setObjectForInfoDictionaryKey(key, std::move(value));
}

}  // namespace vesp::vdir
