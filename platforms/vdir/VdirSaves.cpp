#include "platforms/vdir/VdirSaves.h"

#include <string>

#include "platforms/vdir/VdirErrors.h"
#include "platforms/vdir/VdirHostValues.h"
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

// The descriptive attributes set: title, location, notes, URL and (events) availability; the editor
// refuses an availability it cannot write.
void describe(const VdirSetValues& set, VdirItemChanges& changes) {
  if (set.title) changes.title = set.title->value_or("");
  if (set.location) changes.location = *set.location;
  if (set.notes) changes.notes = *set.notes;
  if (set.url) changes.url = *set.url ? std::optional<std::string>((*set.url)->absoluteString()) : std::nullopt;
  changes.availability = set.availability;
}

// The alarms and repeat rule set, as the editor writes them. One rule at most; none (or an empty
// list) removes every repeat, and the item becomes the occurrence it was saved from.
std::optional<platform::NSError> schedule(const VdirSetValues& set, const VdirClock& clock, VdirItemChanges& changes) {
  if (set.alarms) {
    auto triggers = alarmTriggers(set.alarms->value_or(std::vector<std::shared_ptr<platform::EKAlarm>>()));
    if (!triggers) return errorOf(triggers.error());
    changes.alarms = std::move(triggers).value();
  }
  if (set.rules) {
    if (!*set.rules || (*set.rules)->empty()) {
      changes.rule = "";
      return std::nullopt;
    }
    if (!(*set.rules)->front()) return vdirError(VdirErrorCode::invalidChange, "a repeat rule of the item is missing");
    if ((*set.rules)->size() > 1) return vdirError(VdirErrorCode::invalidChange, "an item can have one repeat rule");
    auto value = ruleValue(*(*set.rules)->front(), clock);
    if (!value) return errorOf(value.error());
    changes.rule = std::move(value).value();
  }
  return std::nullopt;
}

// The collection a calendar set on an event names, when it is one of the store's.
rivet::RivetResult<std::string> collectionOf(VdirStore& store, const std::shared_ptr<platform::EKCalendar>& calendar) {
  if (!calendar || !collectionNamed(*store.snapshot(), calendar->calendarIdentifier()))
    return vdirFailure(VdirErrorCode::noCalendar, "the event has no calendar of this store", __FILE__, __func__,
                       __LINE__);
  return calendar->calendarIdentifier();
}

// The collection a stored item moves to: the one its set calendar names, or none when no calendar was set.
rivet::RivetResult<std::optional<std::string>> movedTo(VdirStore& store, const VdirSetValues& set) {
  if (!set.calendar) return std::optional<std::string>();
  auto named = collectionOf(store, *set.calendar);
  if (!named) return named.error();
  return std::optional<std::string>(*named);
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
                                                     " changed on disk since the item was read: nothing was written; "
                                                     "read it again to change it");
}

std::optional<platform::NSError> saved(VdirItemEditor& editor, const rivet::RivetResult<VdirPlan>& plan) {
  if (!plan) return errorOf(plan.error());
  if (auto written = editor.apply(*plan); !written) return errorOf(written.error());
  return std::nullopt;
}

// Applies the plan made for an edit of `item` (what a stored event or reminder was read from; null
// for one the host created), unless the store has read its file again since the item was read.
std::optional<platform::NSError> savedOver(const VdirStore& store, VdirItemEditor& editor,
                                           const rivet::RivetResult<VdirPlan>& plan,
                                           const std::shared_ptr<const VdirItem>& item) {
  if (plan && item && !basedOnServedFile(store, *plan, item)) return changedSinceRead(*item);
  return saved(editor, plan);
}

// The form of times stated in `zone`: UTC, a zone libical knows, or floating when there is none.
rivet::RivetResult<VdirTime> zoneForm(const std::optional<platform::TimeZone>& zone) {
  VdirTime form;
  if (!zone) {
    form.kind = VdirTime::Kind::floating;
  } else if (zone->identifier() == "UTC" || zone->identifier() == "GMT") {
    form.kind = VdirTime::Kind::utc;
  } else if (icaltimezone* known = builtinZone(zone->identifier())) {
    form.kind = VdirTime::Kind::zoned;
    form.zone = known;
    form.tzid = zone->identifier();
  } else {
    return vdirFailure(VdirErrorCode::unknownTimeZone, "unknown time zone \"" + zone->identifier() + "\"", __FILE__,
                       __func__, __LINE__);
  }
  return form;
}

// The form an event's times take: a day when it lasts all day, else the zone set on it, else
// `stated` (or the local zone, for an event that no longer lasts all day).
rivet::RivetResult<VdirTime> eventForm(const VdirSetValues& set, const VdirTime& stated, const VdirClock& clock) {
  const bool allDay = set.allDay.value_or(stated.isDate());
  if (allDay) return stated.isDate() ? stated : newItemForm(true, clock);
  if (set.timeZone) return zoneForm(*set.timeZone);
  return stated.isDate() ? newItemForm(false, clock) : stated;
}

// An end in the form `form` of the event's start `start`. A day's end is the first midnight at or
// after the end, at least a day after the start: an all-day event covers every day its times touch.
VdirTime endLike(platform::Date end, const VdirTime& start, const VdirTime& form, const VdirClock& clock) {
  if (!form.isDate()) return timeLike(end, form, clock);
  VdirTime day = timeLike(platform::Date(end.timeIntervalSinceReferenceDate() - 1), form, clock);
  icaltime_adjust(&day.local, 1, 0, 0, 0);
  if (icaltime_compare_date_only(day.local, start.local) <= 0) {
    day.local = start.local;
    icaltime_adjust(&day.local, 1, 0, 0, 0);
  }
  return day;
}

std::optional<platform::NSError> saveNew(VdirStore& store, VdirNewEvent& event) {
  const VdirSetValues set = event.setValues();
  if (!set.start || !set.end) return vdirError(VdirErrorCode::invalidChange, "a new event needs a start and an end");
  if (*set.end < *set.start) return vdirError(VdirErrorCode::endBeforeStart, "the event ends before it starts");
  auto collection = collectionOf(store, set.calendar.value_or(nullptr));
  if (!collection) return errorOf(collection.error());
  VdirItemChanges changes;
  describe(set, changes);
  if (auto refused = schedule(set, store.clock(), changes)) return refused;
  if (!changes.title) changes.title = "";
  auto form = eventForm(set, newItemForm(set.allDay.value_or(false), store.clock()), store.clock());
  if (!form) return errorOf(form.error());
  changes.start = timeLike(*set.start, *form, store.clock());
  changes.end = endLike(*set.end, *changes.start, *form, store.clock());
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
  const VdirTime& stated = event.statedStart();
  auto form = eventForm(set, stated, store.clock());
  if (!form) return errorOf(form.error());
  const bool series = event.fields().series->isRecurring() && span != VdirSpan::thisOccurrence;
  const bool formChanges = form->kind != stated.kind || form->tzid != stated.tzid;
  // The first occurrence of a series takes the series' start: one moved away from its usual time
  // would lose its own.
  if (series && formChanges && !set.start && event.fields().start != event.fields().occurrence)
    return vdirError(VdirErrorCode::invalidChange,
                     "the zone of a repeating event, or whether it lasts all day, is changed from an occurrence "
                     "at its usual time");
  const platform::Date start = set.start.value_or(event.fields().start), end = set.end.value_or(event.fields().end);
  if (end < start) return vdirError(VdirErrorCode::endBeforeStart, "the event ends before it starts");
  VdirItemChanges changes;
  describe(set, changes);
  if (auto refused = schedule(set, store.clock(), changes)) return refused;
  // The instants stay when only the form changes. A series is changed from the occurrence it is
  // saved from as the series states it, and its end goes with its start.
  const VdirTime startTime =
      timeLike(series && !set.start ? event.fields().occurrence : start, *form, store.clock());
  if (set.start || formChanges) changes.start = startTime;
  if (set.end || (formChanges && !series)) changes.end = endLike(end, startTime, *form, store.clock());
  auto collection = movedTo(store, set);
  if (!collection) return errorOf(collection.error());
  VdirItemEditor editor(store.shared_from_this());
  auto plan =
      editor.changeEvent(event.fields().series->identifier, event.fields().occurrence, span, changes, *collection);
  return savedOver(store, editor, plan, event.fields().item);
}

// A due date as the host gave it: a day, or a day and time in UTC, in a known zone, or floating.
rivet::RivetResult<VdirTime> dueOf(const platform::DateComponents& c) {
  auto refused = [](const std::string& why) {
    return vdirFailure(VdirErrorCode::invalidChange, why, __FILE__, "dueOf", __LINE__);
  };
  auto within = [](const std::optional<std::int64_t>& value, std::int64_t low, std::int64_t high) {
    return !value || (*value >= low && *value <= high);
  };
  if (!c.year || !c.month || !c.day) return refused("a due date needs a year, a month and a day");
  if (!within(c.year, 1, 9999) || !within(c.month, 1, 12) || !within(c.day, 1, 31) || !within(c.hour, 0, 23) ||
      !within(c.minute, 0, 59) || !within(c.second, 0, 60))
    return refused("the due date's components are out of range");
  VdirTime time;
  time.local = icaltime_null_time();
  time.local.year = static_cast<int>(*c.year);
  time.local.month = static_cast<int>(*c.month);
  time.local.day = static_cast<int>(*c.day);
  if (time.local.day > icaltime_days_in_month(time.local.month, time.local.year))
    return refused("the due date names a day its month does not have");
  if (!c.hour) {
    time.kind = VdirTime::Kind::date;
    time.local.is_date = 1;
    return time;
  }
  time.local.hour = static_cast<int>(*c.hour);
  time.local.minute = static_cast<int>(c.minute.value_or(0));
  time.local.second = static_cast<int>(c.second.value_or(0));
  // Written as given, it would be read as the next minute's first here, and refused by readers
  // that know no leap seconds.
  if (time.local.second == 60) return refused("the due date names a 60th second");
  auto form = zoneForm(c.timeZone);
  if (!form) return form.error();
  time.kind = form->kind;
  time.zone = form->zone;
  time.tzid = form->tzid;
  return time;
}

// What was set on a reminder, as a change.
rivet::RivetResult<VdirItemChanges> reminderChanges(const VdirSetValues& set) {
  VdirItemChanges changes;
  describe(set, changes);
  if (set.rules)
    return vdirFailure(VdirErrorCode::invalidChange, "a reminder's repeat rules cannot be saved yet", __FILE__,
                       __func__, __LINE__);
  if (set.timeZone)
    return vdirFailure(VdirErrorCode::invalidChange,
                       "a reminder's zone is that of its due date: set it with the due date's components", __FILE__,
                       __func__, __LINE__);
  if (set.alarms) {
    // Other clients count a to-do's offsets from its start or its due date, as they choose: only
    // an alarm at a set time means the same to all of them.
    const auto alarms = set.alarms->value_or(std::vector<std::shared_ptr<platform::EKAlarm>>());
    for (const auto& alarm : alarms)
      if (alarm && !alarm->absoluteDate())
        return vdirFailure(VdirErrorCode::invalidChange,
                           "a reminder's alarms are saved at a set time (alarmWithAbsoluteDate), not as an offset",
                           __FILE__, __func__, __LINE__);
    auto triggers = alarmTriggers(alarms);
    if (!triggers) return triggers.error();
    changes.alarms = std::move(triggers).value();
  }
  if (set.priority) {
    if (*set.priority < 0 || *set.priority > 9)
      return vdirFailure(VdirErrorCode::invalidChange, "a priority is 0 (none) to 9", __FILE__, __func__, __LINE__);
    changes.priority = static_cast<int>(*set.priority);
  }
  if (set.due && *set.due) {
    auto due = dueOf(**set.due);
    if (!due) return due.error();
    changes.due = std::optional<VdirTime>(*due);
  } else if (set.due) {
    changes.due.emplace();  // removes the due date
  }
  changes.completed = set.completed;
  return changes;
}

std::optional<platform::NSError> saveNewReminder(VdirStore& store, VdirNewReminder& reminder) {
  const VdirSetValues set = reminder.setValues();
  auto collection = collectionOf(store, set.calendar.value_or(nullptr));
  if (!collection) return errorOf(collection.error());
  auto changes = reminderChanges(set);
  if (!changes) return errorOf(changes.error());
  if (!changes->title) changes->title = "";
  VdirItemEditor editor(store.shared_from_this());
  const auto identifier = reminder.savedIdentifier();
  auto plan =
      identifier ? editor.changeReminder(*identifier, *changes) : editor.newItem(*collection, "VTODO", *changes);
  if (auto failed = saved(editor, plan)) return failed;
  if (!identifier) reminder.setSavedIdentifier(plan->identifier);
  return std::nullopt;
}

std::optional<platform::NSError> saveStoredReminder(VdirStore& store, const VdirReminder& reminder) {
  const VdirSetValues set = reminder.setValues();
  auto collection = movedTo(store, set);
  if (!collection) return errorOf(collection.error());
  auto changes = reminderChanges(set);
  if (!changes) return errorOf(changes.error());
  VdirItemEditor editor(store.shared_from_this());
  auto plan = editor.changeReminder(reminder.calendarItemIdentifier(), *changes, *collection);
  return savedOver(store, editor, plan, reminder.sharedItem());
}

}  // namespace

std::optional<platform::NSError> saveReminder(VdirStore& store, const std::shared_ptr<platform::EKReminder>& reminder) {
  if (auto fresh = std::dynamic_pointer_cast<VdirNewReminder>(reminder)) return saveNewReminder(store, *fresh);
  if (auto stored = std::dynamic_pointer_cast<VdirReminder>(reminder)) return saveStoredReminder(store, *stored);
  return vdirError(VdirErrorCode::invalidChange, "the reminder was not made by this platform");
}

std::optional<platform::NSError> removeReminder(VdirStore& store,
                                                const std::shared_ptr<platform::EKReminder>& reminder) {
  std::optional<std::string> identifier;
  std::shared_ptr<const VdirItem> item;
  if (auto fresh = std::dynamic_pointer_cast<VdirNewReminder>(reminder)) {
    identifier = fresh->savedIdentifier();
  } else if (auto stored = std::dynamic_pointer_cast<VdirReminder>(reminder)) {
    identifier = stored->calendarItemIdentifier();
    item = stored->sharedItem();
  }
  if (!identifier) return vdirError(VdirErrorCode::noSuchItem, "the reminder is not in the store");
  VdirItemEditor editor(store.shared_from_this());
  auto plan = editor.removeReminder(*identifier);
  return savedOver(store, editor, plan, item);
}

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
    identifier = stored->fields().series->identifier;
    occurrence = stored->fields().occurrence;
    item = stored->fields().item;
  }
  if (!identifier) return vdirError(VdirErrorCode::noSuchItem, "the event is not in the store");
  VdirItemEditor editor(store.shared_from_this());
  auto plan = editor.removeEvent(*identifier, occurrence, *vdirSpan);
  return savedOver(store, editor, plan, item);
}

}  // namespace vesp::vdir
