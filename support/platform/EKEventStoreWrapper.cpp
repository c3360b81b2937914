#include "support/platform/EKEventStoreWrapper.h"

#include "support/platform/EKTypes.h"
#include "support/rivet/RivetFatal.h"

namespace vesp::platform {

EKEventStoreWrapper::EKEventStoreWrapper(std::shared_ptr<EKEventStore> target) : target_(std::move(target)) {
  if (!target_) rivet::fatalError("EKEventStoreWrapper made without a target store");
}

std::shared_ptr<EKEventStore> EKEventStoreWrapper::innermost(std::shared_ptr<EKEventStore> store) {
  while (auto wrapper = std::dynamic_pointer_cast<EKEventStoreWrapper>(store)) store = wrapper->target();
  return store;
}

void EKEventStoreWrapper::forwardChanges(const std::shared_ptr<NSNotificationCenter>& center) {
  auto self = std::static_pointer_cast<EKEventStoreWrapper>(shared_from_this());
  std::weak_ptr<EKEventStoreWrapper> weakSelf = self;
  std::weak_ptr<NSNotificationCenter> weakCenter = center;  // the centre holds this selector
  center->addObserver(
      std::weak_ptr<const void>(weakSelf), "targetChanged:",
      [weakSelf, weakCenter](const Notification&) {
        auto wrapper = weakSelf.lock();
        auto centre = weakCenter.lock();
        if (wrapper && centre)
          centre->postNotificationName(EKEventStoreChangedNotification, std::static_pointer_cast<NSObject>(wrapper));
      },
      EKEventStoreChangedNotification, target_.get());
}

std::string EKEventStoreWrapper::description() const { return "<EKEventStore wrapping " + target_->description() + ">"; }

}  // namespace vesp::platform
