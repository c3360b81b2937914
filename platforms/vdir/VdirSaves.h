// Saving and removing events through the platform interface: what a host set on an event becomes
// a change for VdirItemEditor, written with the store's save. Failures come back as the platform's
// errors (VdirErrors.h), with nothing written.
#pragma once

#include <memory>
#include <optional>

#include "platforms/vdir/VdirStore.h"
#include "support/platform/EKEvent.h"
#include "support/platform/EKReminder.h"
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

// A new reminder (VdirNewReminder) becomes a to-do in a file of its own in its list; a stored one
// (VdirReminder) is changed in its file: title, location, notes, URL, priority (0-9), due date (a
// day, or a day and time in UTC, a known zone or floating), completed. Not yet: moving a reminder
// to another list, removing a stored reminder's due date (both refused, invalidChange).
std::optional<platform::NSError> saveReminder(VdirStore& store, const std::shared_ptr<platform::EKReminder>& reminder);
std::optional<platform::NSError> removeReminder(VdirStore& store,
                                                const std::shared_ptr<platform::EKReminder>& reminder);

}  // namespace vesp::vdir
