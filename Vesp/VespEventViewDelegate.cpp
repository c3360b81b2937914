#include "Vesp/VespEventViewDelegate.h"

namespace vesp {

void VespEventViewDelegate::eventViewController(const std::shared_ptr<platform::EKEventViewController>& controller,
                                                platform::EKEventViewAction) {
  controller->dismissViewControllerAnimated(true, nullptr);
}

void VespEventViewDelegate::eventEditViewController(
    const std::shared_ptr<platform::EKEventEditViewController>& controller, platform::EKEventEditViewAction) {
  controller->dismissViewControllerAnimated(true, nullptr);
}

}  // namespace vesp
