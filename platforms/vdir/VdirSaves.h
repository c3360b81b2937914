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
// calendar set on it. A series comes to last all day, or no longer does, with its exclusions,
// overrides and end (see changeSeries in VdirEdit.h).
std::optional<platform::NSError> saveEvent(VdirStore& store, const std::shared_ptr<platform::EKEvent>& event,
                                           platform::EKSpan span);
std::optional<platform::NSError> removeEvent(VdirStore& store, const std::shared_ptr<platform::EKEvent>& event,
                                             platform::EKSpan span);

// A new reminder (VdirNewReminder) becomes a to-do in a file of its own in its list; a stored one
// (VdirReminder) is changed in its file: title, location, notes, URL, priority (0-9), due date (a
// day, or a day and time in UTC, a known zone or floating, or none), completed, alarms at a set
// time, and the list set on it. Refused (invalidChange): repeat rules, a zone of its own, alarms
// as offsets.
std::optional<platform::NSError> saveReminder(VdirStore& store, const std::shared_ptr<platform::EKReminder>& reminder);
std::optional<platform::NSError> removeReminder(VdirStore& store,
                                                const std::shared_ptr<platform::EKReminder>& reminder);

}  // namespace vesp::vdir
