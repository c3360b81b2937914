// Drives the calendar chooser screen: remembers the selection, dismisses the screen when the user
// taps Done or Cancel and, on Done, hands the chosen calendars' identifiers to the callback. A
// failure the callback returns is logged once, with the "Calendar chooser finished" impetus.
//
// The manager keeps the latest picker alive; the chooser holds its delegate weakly.
// Thread safety: main thread only.
#pragma once

#include <memory>
#include <string>

#include "Vesp/VespCalendarManaging.h"
#include "support/platform/NSObject.h"
#include "support/platform/Platform.h"
#include "support/platform/Screens.h"
#include "support/rivet/RivetLogging.h"

namespace vesp {

class VespCalendarPicker final : public platform::NSObject, public platform::EKCalendarChooserDelegate {
 public:
  // The platform makes the chooser screens; without one, the process default is used.
  VespCalendarPicker(VespCalendarPickCallback callback, std::shared_ptr<rivet::RivetLogging> logger,
                     std::shared_ptr<platform::Platform> platform = nullptr);
  // Unusable: stops the process naming init().
  VespCalendarPicker();

  // Shows a chooser (multiple selection, all calendars, events, `eventStore`) with the given
  // selection, Done and Cancel, in a navigation container on `presentingController`.
  rivet::RivetResult<void> chooseForEvents(const std::shared_ptr<platform::UIViewController>& presentingController,
                                           const platform::EKCalendarSet& initiallySelected,
                                           const std::shared_ptr<platform::EKEventStore>& eventStore);

  void calendarChooserSelectionDidChange(const std::shared_ptr<platform::EKCalendarChooser>& chooser) override;
  void calendarChooserDidFinish(const std::shared_ptr<platform::EKCalendarChooser>& chooser) override;
  void calendarChooserDidCancel(const std::shared_ptr<platform::EKCalendarChooser>& chooser) override;

  const platform::EKCalendarSet& selected() const { return selected_; }
  const std::shared_ptr<platform::EKCalendarChooser>& viewController() const { return viewController_; }
  std::string description() const override { return "<VespCalendarPicker>"; }

 private:
  VespCalendarPickCallback callback_;
  std::shared_ptr<rivet::RivetLogging> logger_;
  platform::EKCalendarSet selected_;
  std::shared_ptr<platform::EKCalendarChooser> viewController_;
  std::shared_ptr<platform::Platform> platform_;
};

}  // namespace vesp
