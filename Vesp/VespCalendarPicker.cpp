#include "Vesp/VespCalendarPicker.h"

#include "support/rivet/RivetFatal.h"

namespace vesp {

VespCalendarPicker::VespCalendarPicker(VespCalendarPickCallback callback, std::shared_ptr<rivet::RivetLogging> logger,
                                       std::shared_ptr<platform::Platform> platform)
    : callback_(std::move(callback)),
      logger_(std::move(logger)),
      platform_(platform ? std::move(platform) : platform::Platform::Default()) {}

VespCalendarPicker::VespCalendarPicker() {
  rivet::fatalError("Use of unimplemented initializer 'init()' for class 'VespCalendarPicker'");
}

rivet::RivetResult<void> VespCalendarPicker::chooseForEvents(
    const std::shared_ptr<platform::UIViewController>& presentingController,
    const platform::EKCalendarSet& initiallySelected, const std::shared_ptr<platform::EKEventStore>& eventStore) {
  selected_ = initiallySelected;
  auto chooser = platform_->makeCalendarChooser(platform::EKCalendarChooserSelectionStyleMultiple,
                                                platform::EKCalendarChooserDisplayAllCalendars,
                                                platform::EKEntityTypeEvent, eventStore);
  chooser->setSelectedCalendars(initiallySelected);
  chooser->setDelegate(std::static_pointer_cast<VespCalendarPicker>(shared_from_this()));
  chooser->setShowsDoneButton(true);
  chooser->setShowsCancelButton(true);
  viewController_ = chooser;
  presentingController->presentViewController(platform_->makeNavigationController(chooser), true, nullptr);
  return rivet::RivetResultVoidSuccess;
}

void VespCalendarPicker::calendarChooserSelectionDidChange(const std::shared_ptr<platform::EKCalendarChooser>& chooser) {
  selected_ = chooser->selectedCalendars();
}

void VespCalendarPicker::calendarChooserDidFinish(const std::shared_ptr<platform::EKCalendarChooser>& chooser) {
  // The callback may start another pick, which releases this picker: stay alive until done.
  auto keepAlive = shared_from_this();
  rivet::RivetImpetus impetus(
      "Calendar chooser finished",
      rivet::RivetArgs{{"self", rivet::RivetValue::object(shared_from_this(), description())},
                       {"calendarChooser", rivet::RivetValue::object(chooser, chooser->description())}},
      "VespCalendarPicker", "calendarChooserDidFinish(_:)", 54);
  chooser->dismissViewControllerAnimated(true, nullptr);
  std::set<std::string> identifiers;
  for (const auto& calendar : selected_) identifiers.insert(calendar->calendarIdentifier());
  auto result = callback_(identifiers, impetus);
  if (!result && logger_) logger_->reportFailure(result.error(), impetus);
}

void VespCalendarPicker::calendarChooserDidCancel(const std::shared_ptr<platform::EKCalendarChooser>& chooser) {
  chooser->dismissViewControllerAnimated(true, nullptr);
}

}  // namespace vesp
