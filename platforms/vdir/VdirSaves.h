// Saving and removing events through the platform interface: what a host set on an event becomes
// a change for VdirItemEditor, written with the store's save. Failures come back as the platform's
// errors (VdirErrors.h), with nothing written.
#pragma once

#include <memory>
#include <optional>

#include "platforms/vdir/VdirStore.h"
#include "support/platform/EKEvent.h"
#include "support/platform/NSError.h"

namespace vesp::vdir {

// A new event (VdirNewEvent) becomes a file of its own in its calendar, and learns its identifier;
// saved again, it is changed as a whole. An occurrence (VdirEvent) is changed alone or with every
// later one, as `span` says (from the first occurrence, the whole series), and moves to the
// calendar set on it. Changing whether an event lasts all day is refused (invalidChange).
std::optional<platform::NSError> saveEvent(VdirStore& store, const std::shared_ptr<platform::EKEvent>& event,
                                           platform::EKSpan span);
std::optional<platform::NSError> removeEvent(VdirStore& store, const std::shared_ptr<platform::EKEvent>& event,
                                             platform::EKSpan span);

}  // namespace vesp::vdir
