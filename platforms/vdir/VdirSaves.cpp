#include "platforms/vdir/VdirSaves.h"

#include <string>

#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirItemEditor.h"
#include "platforms/vdir/VdirObjects.h"
#include "platforms/vdir/VdirText.h"
#include "platforms/vdir/VdirZones.h"

namespace vesp::vdir {
namespace {

platform::NSError errorOf(const rivet::RivetError& error) {
  if (const auto& framework = error.frameworkError(); framework && framework->domain() == VdirErrorDomain)
    return *framework;
  return vdirError(VdirErrorCode::invalidChange, error.message());
}

std::optional<VdirSpan> spanOf(platform::EKSpan span) {
  if (span == platform::EKSpanThisEvent) return VdirSpan::thisOccurrence;
  if (span == platform::EKSpanFutureEvents) return VdirSpan::futureOccurrences;
  return std::nullopt;
}

// `instant` in the form of `like` (its kind and zone).
VdirTime timeLike(platform::Date instant, VdirTime like, const VdirClock& clock) {
  like.local = clock.wallClockLike(instant, like);
  return like;
}

// How a new event states its times: a date when it lasts all day, else the wall-clock time in the
// user's zone under its name (UTC when the zone is unknown).
VdirTime newEventForm(bool allDay, const VdirClock& clock) {
  VdirTime form;
  if (allDay) {
    form.kind = VdirTime::Kind::date;
  } else if (icaltimezone* zone = builtinZone(clock.localZoneName()); zone && clock.localZoneName() != "UTC") {
    form.kind = VdirTime::Kind::zoned;
    form.zone = zone;
    form.tzid = clock.localZoneName();
  } else {
    form.kind = VdirTime::Kind::utc;
  }
  return form;
}

// The descriptive attributes set: title, location, notes and URL.
void describe(const VdirSetValues& set, VdirItemChanges& changes) {
  if (set.title) changes.title = set.title->value_or("");
  if (set.location) changes.location = *set.location;
  if (set.notes) changes.notes = *set.notes;
  if (set.url) changes.url = *set.url ? std::optional<std::string>((*set.url)->absoluteString()) : std::nullopt;
}

// The collection a calendar set on an event names, when it is one of the store's.
rivet::RivetResult<std::string> collectionOf(VdirStore& store, const std::shared_ptr<platform::EKCalendar>& calendar) {
  if (!calendar || !collectionNamed(*store.snapshot(), calendar->calendarIdentifier()))
    return vdirFailure(VdirErrorCode::noCalendar, "the event has no calendar of this store", __FILE__, __func__,
                       __LINE__);
  return calendar->calendarIdentifier();
}

// Whether the plan's edit of the event's file starts from the version the event was read from:
// another program may have changed the file since, and the store not yet seen it.
bool basedOnServedFile(const VdirStore& store, const VdirPlan& plan, const std::shared_ptr<const VdirItem>& item) {
  for (const VdirFileChange& change : plan.changes)
    if (change.collection + "/" + escapedName(change.name) == item->relativePath)
      return change.basis.status && store.servesVersion(item, *change.basis.status);
  return true;
}

platform::NSError changedSinceRead(const VdirItem& item) {
  return vdirError(VdirErrorCode::changedOnDisk, item.relativePath +
                                                     " changed on disk since the event was read: nothing was written; "
                                                     "read it again to change it");
}

std::optional<platform::NSError> saved(VdirItemEditor& editor, const rivet::RivetResult<VdirPlan>& plan) {
  if (!plan) return errorOf(plan.error());
  if (auto written = editor.apply(*plan); !written) return errorOf(written.error());
  return std::nullopt;
}

std::optional<platform::NSError> saveNew(VdirStore& store, VdirNewEvent& event) {
  const VdirSetValues set = event.setValues();
  if (!set.start || !set.end) return vdirError(VdirErrorCode::invalidChange, "a new event needs a start and an end");
  if (*set.end < *set.start) return vdirError(VdirErrorCode::endBeforeStart, "the event ends before it starts");
  auto collection = collectionOf(store, set.calendar.value_or(nullptr));
  if (!collection) return errorOf(collection.error());
  VdirItemChanges changes;
  describe(set, changes);
  const VdirTime form = newEventForm(set.allDay.value_or(false), store.clock());
  changes.start = timeLike(*set.start, form, store.clock());
  changes.end = timeLike(*set.end, form, store.clock());
  VdirItemEditor editor(store.shared_from_this());
  const auto identifier = event.savedIdentifier();
  auto plan = identifier ? editor.changeEvent(*identifier, std::nullopt, VdirSpan::thisOccurrence, changes, *collection)
                         : editor.newItem(*collection, "VEVENT", changes);
  if (auto failed = saved(editor, plan)) return failed;
  event.setSavedIdentifier(plan->identifier);
  return std::nullopt;
}

std::optional<platform::NSError> saveOccurrence(VdirStore& store, const VdirEvent& event, VdirSpan span) {
  const VdirSetValues set = event.setValues();
  if (set.allDay && *set.allDay != event.statedStart().isDate())
    return vdirError(VdirErrorCode::invalidChange, "whether a stored event lasts all day cannot be changed");
  const platform::Date start = set.start.value_or(event.fields().start), end = set.end.value_or(event.fields().end);
  if (end < start) return vdirError(VdirErrorCode::endBeforeStart, "the event ends before it starts");
  VdirItemChanges changes;
  describe(set, changes);
  if (set.start) changes.start = timeLike(*set.start, event.statedStart(), store.clock());
  if (set.end) changes.end = timeLike(*set.end, event.statedStart(), store.clock());
  std::optional<std::string> collection;
  if (set.calendar) {
    auto named = collectionOf(store, *set.calendar);
    if (!named) return errorOf(named.error());
    collection = *named;
  }
  VdirItemEditor editor(store.shared_from_this());
  auto plan = editor.changeEvent(event.fields().eventIdentifier, event.fields().occurrence, span, changes, collection);
  if (plan && !basedOnServedFile(store, *plan, event.fields().item)) return changedSinceRead(*event.fields().item);
  return saved(editor, plan);
}

}  // namespace

std::optional<platform::NSError> saveEvent(VdirStore& store, const std::shared_ptr<platform::EKEvent>& event,
                                           platform::EKSpan span) {
  const auto vdirSpan = spanOf(span);
  if (!vdirSpan) return vdirError(VdirErrorCode::invalidChange, "unknown span " + std::to_string(span));
  if (auto fresh = std::dynamic_pointer_cast<VdirNewEvent>(event)) return saveNew(store, *fresh);
  if (auto stored = std::dynamic_pointer_cast<VdirEvent>(event)) return saveOccurrence(store, *stored, *vdirSpan);
  return vdirError(VdirErrorCode::invalidChange, "the event was not made by this platform");
}

std::optional<platform::NSError> removeEvent(VdirStore& store, const std::shared_ptr<platform::EKEvent>& event,
                                             platform::EKSpan span) {
  const auto vdirSpan = spanOf(span);
  if (!vdirSpan) return vdirError(VdirErrorCode::invalidChange, "unknown span " + std::to_string(span));
  std::optional<std::string> identifier;
  std::optional<platform::Date> occurrence;
  std::shared_ptr<const VdirItem> item;  // what a stored event was read from
  if (auto fresh = std::dynamic_pointer_cast<VdirNewEvent>(event)) {
    identifier = fresh->savedIdentifier();
  } else if (auto stored = std::dynamic_pointer_cast<VdirEvent>(event)) {
    identifier = stored->fields().eventIdentifier;
    occurrence = stored->fields().occurrence;
    item = stored->fields().item;
  }
  if (!identifier) return vdirError(VdirErrorCode::noSuchItem, "the event is not in the store");
  VdirItemEditor editor(store.shared_from_this());
  auto plan = editor.removeEvent(*identifier, occurrence, *vdirSpan);
  if (plan && item && !basedOnServedFile(store, *plan, item)) return changedSinceRead(*item);
  return saved(editor, plan);
}

}  // namespace vesp::vdir
