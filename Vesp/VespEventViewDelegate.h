// Dismisses the event view and edit screens when the user is done with them, whatever the action.
// The manager keeps one for its whole life; the screens hold it weakly.
#pragma once

#include <memory>

#include "support/platform/NSObject.h"
#include "support/platform/Screens.h"

namespace vesp {

class VespEventViewDelegate final : public platform::NSObject,
                                    public platform::EKEventViewDelegate,
                                    public platform::EKEventEditViewDelegate {
 public:
  VespEventViewDelegate() = default;

  // Sends the view screen an animated dismissal; the action (done, responded, deleted) is ignored.
  void eventViewController(const std::shared_ptr<platform::EKEventViewController>& controller,
                           platform::EKEventViewAction action) override;
  // Sends the edit screen an animated dismissal; the action (cancelled, saved, deleted) is ignored.
  void eventEditViewController(const std::shared_ptr<platform::EKEventEditViewController>& controller,
                               platform::EKEventEditViewAction action) override;

  std::string description() const override { return "<VespEventViewDelegate>"; }
};

}  // namespace vesp
