// The platform objects the vdir store hands out. Each reads the compact data of one file version
// (kept alive by the object), so an answer stays whole while files change; what a host sets on an
// event or reminder is kept on the object, over that data, until the store saves it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platforms/vdir/VdirItem.h"
#include "support/platform/EKAlarm.h"
#include "support/platform/EKCalendar.h"
#include "support/platform/EKEvent.h"
#include "support/platform/EKParticipant.h"
#include "support/platform/EKRecurrenceRule.h"
#include "support/platform/EKReminder.h"
#include "support/platform/EKSource.h"
#include "support/platform/EKStructuredLocation.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::vdir {

// What a host set on an event or reminder: each attribute it set, or nothing.
struct VdirSetValues {
  std::optional<std::optional<std::string>> title, location, notes;
  std::optional<std::optional<platform::URL>> url;
  std::optional<std::optional<platform::TimeZone>> timeZone;  // set to a zone, or to none (floating)
  std::optional<platform::Date> start, end;
  std::optional<bool> allDay;
  std::optional<platform::EKEventAvailability> availability;
  std::optional<std::shared_ptr<platform::EKCalendar>> calendar;
  std::optional<std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>>> alarms;
  std::optional<std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>>> rules;
  // Reminders.
  std::optional<bool> completed;
  std::optional<std::optional<platform::Date>> completionDate;
  std::optional<std::int64_t> priority;
  std::optional<std::optional<platform::DateComponents>> due;
};

// The values set on one object, under its own lock. Most records are only read, so the values
// are made by the first set, and a record nothing was set on carries only a null pointer.
class VdirSettable {
 public:
  VdirSetValues values() const {
    rivet::RivetMutexLock lock(mutex_);
    return values_ ? *values_ : VdirSetValues{};
  }
  template <class Field, class T>
  void assign(Field field, T value) {
    rivet::RivetMutexLock lock(mutex_);
    if (!values_) values_ = std::make_unique<VdirSetValues>();
    (*values_).*field = std::move(value);
  }
  // What `field` of the set values holds, or `unset` when it was not set.
  template <class T, class Field>
  T read(Field field, T unset) const {
    rivet::RivetMutexLock lock(mutex_);
    const auto* value = values_ ? &((*values_).*field) : nullptr;
    return value && *value ? T(**value) : std::move(unset);
  }
  // As `read`, but `unset()` is called only when the field was not set, and outside the lock.
  template <class Field, class Fallback>
  auto readOr(Field field, Fallback unset) const -> decltype(unset()) {
    {
      rivet::RivetMutexLock lock(mutex_);
      const auto* value = values_ ? &((*values_).*field) : nullptr;
      if (value && *value) return decltype(unset())(**value);
    }
    return unset();
  }

 private:
  mutable rivet::RivetMutex mutex_;
  std::unique_ptr<VdirSetValues> values_ RIVET_GUARDED_BY(mutex_);
};

// The setters every item shares, defined once: each keeps what the host set over the data read,
// for the item's reads and for the store's save.
template <class Interface>
class VdirSettableItem : public Interface {
 public:
  void setTitle(std::optional<std::string> value) override { set_.assign(&VdirSetValues::title, std::move(value)); }
  void setLocation(std::optional<std::string> value) override {
    set_.assign(&VdirSetValues::location, std::move(value));
  }
  void setNotes(std::optional<std::string> value) override { set_.assign(&VdirSetValues::notes, std::move(value)); }
  void setURL(std::optional<platform::URL> value) override { set_.assign(&VdirSetValues::url, std::move(value)); }
  void setTimeZone(std::optional<platform::TimeZone> value) override {
    set_.assign(&VdirSetValues::timeZone, std::move(value));
  }
  void setCalendar(std::shared_ptr<platform::EKCalendar> value) override {
    set_.assign(&VdirSetValues::calendar, std::move(value));
  }
  void setAlarms(std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> value) override {
    set_.assign(&VdirSetValues::alarms, std::move(value));
  }
  void setRecurrenceRules(std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> value) override {
    set_.assign(&VdirSetValues::rules, std::move(value));
  }
  // What was set since the item was read or made.
  VdirSetValues setValues() const { return set_.values(); }

 protected:
  VdirSettable set_;
};

class VdirSettableEvent : public VdirSettableItem<platform::EKEvent> {
 public:
  void setStartDate(platform::Date value) override { set_.assign(&VdirSetValues::start, value); }
  void setEndDate(platform::Date value) override { set_.assign(&VdirSetValues::end, value); }
  void setAllDay(bool value) override { set_.assign(&VdirSetValues::allDay, value); }
  void setAvailability(platform::EKEventAvailability value) override {
    set_.assign(&VdirSetValues::availability, value);
  }
};

class VdirSettableReminder : public VdirSettableItem<platform::EKReminder> {
 public:
  void setPriority(std::int64_t value) override { set_.assign(&VdirSetValues::priority, value); }
  void setDueDateComponents(std::optional<platform::DateComponents> value) override {
    set_.assign(&VdirSetValues::due, std::move(value));
  }
};

// The identifier the store gave a new item when it saved it, under its own lock.
class VdirSavedIdentifier {
 public:
  std::optional<std::string> get() const {
    rivet::RivetMutexLock lock(mutex_);
    return saved_;
  }
  void set(std::string identifier) {
    rivet::RivetMutexLock lock(mutex_);
    saved_ = std::move(identifier);
  }

 private:
  mutable rivet::RivetMutex mutex_;
  std::optional<std::string> saved_ RIVET_GUARDED_BY(mutex_);
};

class VdirSource : public platform::EKSource {
 public:
  VdirSource(std::string identifier, platform::EKSourceType type, std::string title)
      : identifier_(std::move(identifier)), type_(type), title_(std::move(title)) {}
  std::string sourceIdentifier() const override { return identifier_; }
  platform::EKSourceType sourceType() const override { return type_; }
  std::string title() const override { return title_; }
  std::string description() const override;

 private:
  std::string identifier_;
  platform::EKSourceType type_;
  std::string title_;
};

struct VdirCalendarFields {
  std::string identifier;  // the collection's path within the store
  std::string title;
  platform::CGColorRef color;
  platform::EKEntityMask entityTypes = platform::EKEntityMaskEvent;
  platform::EKCalendarType type = platform::EKCalendarTypeLocal;
  std::shared_ptr<VdirSource> source;
  bool writable = false;  // its directory may be written: items may be saved to it
};

class VdirCalendar : public platform::EKCalendar {
 public:
  explicit VdirCalendar(VdirCalendarFields fields) : fields_(std::move(fields)) {}
  const VdirCalendarFields& fields() const { return fields_; }

  bool allowsContentModifications() const override { return fields_.writable; }
  platform::EKEntityMask allowedEntityTypes() const override { return fields_.entityTypes; }
  std::string calendarIdentifier() const override { return fields_.identifier; }
  platform::CGColorRef CGColor() const override { return fields_.color; }
  bool isImmutable() const override { return true; }
  bool isSubscribed() const override { return false; }
  std::shared_ptr<platform::EKSource> source() const override { return fields_.source; }
  platform::EKCalendarEventAvailabilityMask supportedEventAvailabilities() const override {
    return platform::EKCalendarEventAvailabilityBusy | platform::EKCalendarEventAvailabilityFree |
           platform::EKCalendarEventAvailabilityTentative | platform::EKCalendarEventAvailabilityUnavailable;
  }
  std::string title() const override { return fields_.title; }
  platform::EKCalendarType type() const override { return fields_.type; }
  std::string description() const override;

 private:
  VdirCalendarFields fields_;
};

// One occurrence of an event series.
struct VdirOccurrenceFields {
  // Points to the item the occurrence was read from (saves compare it) and keeps `series` and
  // `component` alive, by owning the item or the snapshot a query found it in.
  std::shared_ptr<const VdirItem> item;
  const VdirSeriesData* series = nullptr;        // its identifier is the event's
  const VdirComponentData* component = nullptr;  // the master or the override
  std::shared_ptr<platform::EKCalendar> calendar;
  platform::Date start, end, occurrence;
  bool detached = false;
};

class VdirEvent : public VdirSettableEvent {
 public:
  explicit VdirEvent(VdirOccurrenceFields fields) : fields_(std::move(fields)) {}
  const VdirOccurrenceFields& fields() const { return fields_; }

  std::shared_ptr<platform::EKCalendar> calendar() const override {
    return set_.read(&VdirSetValues::calendar, fields_.calendar);
  }
  std::string calendarItemIdentifier() const override { return fields_.series->identifier; }
  std::optional<std::string> calendarItemExternalIdentifier() const override { return data().uid; }
  std::optional<platform::Date> creationDate() const override { return details().created; }
  std::optional<platform::Date> lastModifiedDate() const override { return details().lastModified; }
  std::optional<std::string> location() const override {
    return set_.read(&VdirSetValues::location, details().location);
  }
  std::optional<std::string> notes() const override { return set_.read(&VdirSetValues::notes, details().description); }
  std::optional<platform::URL> URL() const override;
  std::optional<platform::TimeZone> timeZone() const override;
  std::optional<std::string> title() const override {
    return set_.read(&VdirSetValues::title, std::optional<std::string>(details().summary.value_or("")));
  }
  std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> alarms() const override;
  std::optional<std::vector<std::shared_ptr<platform::EKParticipant>>> attendees() const override;
  std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> recurrenceRules() const override;

  platform::EKEventAvailability availability() const override {
    return set_.read(&VdirSetValues::availability, data().availability);
  }
  std::optional<std::string> birthdayContactIdentifier() const override { return std::nullopt; }
  std::optional<platform::Date> endDate() const override {
    return set_.read(&VdirSetValues::end, std::optional<platform::Date>(fields_.end));
  }
  std::optional<std::string> eventIdentifier() const override { return fields_.series->identifier; }
  std::optional<platform::Date> occurrenceDate() const override { return fields_.occurrence; }
  bool isAllDay() const override { return set_.read(&VdirSetValues::allDay, data().start.isDate()); }
  bool isDetached() const override { return fields_.detached; }
  std::shared_ptr<platform::EKParticipant> organizer() const override;
  std::optional<platform::Date> startDate() const override {
    return set_.read(&VdirSetValues::start, std::optional<platform::Date>(fields_.start));
  }
  platform::EKEventStatus status() const override { return data().status; }
  std::shared_ptr<platform::EKStructuredLocation> structuredLocation() const override;
  std::optional<platform::AnyObject> valueForKey(const std::string& key) const override;
  std::string description() const override;

  // The start as its file states it (its kind and zone), for writing a new start in that form.
  const VdirTime& statedStart() const { return data().start; }

 private:
  const VdirComponentData& data() const { return *fields_.component; }
  const VdirComponentDetails& details() const { return *data().details; }
  VdirOccurrenceFields fields_;
};

class VdirReminder : public VdirSettableReminder {
 public:
  // REQUIRES: `todo` is one of item's to-dos.
  VdirReminder(std::shared_ptr<const VdirItem> item, const VdirComponentData* todo,
               std::shared_ptr<platform::EKCalendar> calendar)
      : item_(std::move(item)), todo_(todo), calendar_(std::move(calendar)) {}
  const VdirItem& item() const { return *item_; }
  const std::shared_ptr<const VdirItem>& sharedItem() const { return item_; }

  std::shared_ptr<platform::EKCalendar> calendar() const override {
    return set_.read(&VdirSetValues::calendar, calendar_);
  }
  std::string calendarItemIdentifier() const override { return task().identifier; }
  std::optional<std::string> calendarItemExternalIdentifier() const override { return data().uid; }
  std::optional<platform::Date> creationDate() const override { return details().created; }
  std::optional<platform::Date> lastModifiedDate() const override { return details().lastModified; }
  std::optional<std::string> location() const override {
    return set_.read(&VdirSetValues::location, details().location);
  }
  std::optional<std::string> notes() const override { return set_.read(&VdirSetValues::notes, details().description); }
  std::optional<platform::URL> URL() const override;
  std::optional<platform::TimeZone> timeZone() const override;
  std::optional<std::string> title() const override {
    return set_.read(&VdirSetValues::title, std::optional<std::string>(details().summary.value_or("")));
  }
  std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> alarms() const override;
  std::optional<std::vector<std::shared_ptr<platform::EKParticipant>>> attendees() const override;
  std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> recurrenceRules() const override;

  std::optional<platform::Date> completionDate() const override {
    return set_.read(&VdirSetValues::completionDate, task().completed);
  }
  std::optional<platform::DateComponents> dueDateComponents() const override;
  bool isCompleted() const override { return set_.read(&VdirSetValues::completed, task().isCompleted); }
  std::int64_t priority() const override { return set_.read(&VdirSetValues::priority, task().priority); }
  std::optional<platform::DateComponents> startDateComponents() const override;
  void setCompleted(bool completed) override;
  std::string description() const override;
  // As the file says: STATUS:CANCELLED, and the due and start dates as instants (a day's from its
  // local midnight).
  bool isCancelled() const { return task().isCancelled; }
  const std::optional<platform::Date>& dueInstant() const { return task().dueInstant; }
  const std::optional<platform::Date>& startInstant() const { return task().startInstant; }


 private:
  const VdirComponentData& data() const { return *todo_; }
  const VdirComponentDetails& details() const { return *data().details; }
  const VdirTodoData& task() const { return *todo_->todoData; }
  std::shared_ptr<const VdirItem> item_;
  const VdirComponentData* todo_;
  std::shared_ptr<platform::EKCalendar> calendar_;
};

// What a new item (eventWithEventStore, reminderWithEventStore) answers: what the host set on it,
// and once saved, the identifier the store gave it.
template <class Settable>
class VdirNewItem : public Settable {
 public:
  std::shared_ptr<platform::EKCalendar> calendar() const override {
    return this->set_.read(&VdirSetValues::calendar, std::shared_ptr<platform::EKCalendar>());
  }
  std::string calendarItemIdentifier() const override { return savedIdentifier().value_or(""); }
  std::optional<std::string> calendarItemExternalIdentifier() const override { return std::nullopt; }
  std::optional<platform::Date> creationDate() const override { return std::nullopt; }
  std::optional<platform::Date> lastModifiedDate() const override { return std::nullopt; }
  std::optional<std::string> location() const override { return this->set_.read(&VdirSetValues::location, kNone); }
  std::optional<std::string> notes() const override { return this->set_.read(&VdirSetValues::notes, kNone); }
  std::optional<platform::URL> URL() const override {
    return this->set_.read(&VdirSetValues::url, std::optional<platform::URL>());
  }
  std::optional<platform::TimeZone> timeZone() const override {
    return this->set_.read(&VdirSetValues::timeZone, std::optional<platform::TimeZone>());
  }
  std::optional<std::string> title() const override { return this->set_.read(&VdirSetValues::title, kNone); }
  std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> alarms() const override {
    return this->set_.read(&VdirSetValues::alarms, std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>>());
  }
  std::optional<std::vector<std::shared_ptr<platform::EKParticipant>>> attendees() const override {
    return std::nullopt;
  }
  std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> recurrenceRules() const override {
    return this->set_.read(&VdirSetValues::rules,
                           std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>>());
  }

  // The item's identifier once the store saved it.
  std::optional<std::string> savedIdentifier() const { return saved_.get(); }
  void setSavedIdentifier(std::string identifier) { saved_.set(std::move(identifier)); }

 private:
  static inline const std::optional<std::string> kNone = std::nullopt;
  VdirSavedIdentifier saved_;
};

class VdirNewEvent : public VdirNewItem<VdirSettableEvent> {
 public:
  platform::EKEventAvailability availability() const override {
    return set_.read(&VdirSetValues::availability, platform::EKEventAvailability{platform::EKEventAvailabilityBusy});
  }
  std::optional<std::string> birthdayContactIdentifier() const override { return std::nullopt; }
  std::optional<platform::Date> endDate() const override;
  std::optional<std::string> eventIdentifier() const override { return savedIdentifier(); }
  std::optional<platform::Date> occurrenceDate() const override { return std::nullopt; }
  bool isAllDay() const override;
  bool isDetached() const override { return false; }
  std::shared_ptr<platform::EKParticipant> organizer() const override { return nullptr; }
  std::optional<platform::Date> startDate() const override;
  platform::EKEventStatus status() const override { return platform::EKEventStatusNone; }
  std::shared_ptr<platform::EKStructuredLocation> structuredLocation() const override { return nullptr; }
  std::optional<platform::AnyObject> valueForKey(const std::string&) const override { return std::nullopt; }
};

class VdirNewReminder : public VdirNewItem<VdirSettableReminder> {
 public:
  std::optional<platform::Date> completionDate() const override {
    return set_.read(&VdirSetValues::completionDate, std::optional<platform::Date>());
  }
  std::optional<platform::DateComponents> dueDateComponents() const override {
    return set_.read(&VdirSetValues::due, std::optional<platform::DateComponents>());
  }
  bool isCompleted() const override { return set_.read(&VdirSetValues::completed, false); }
  std::int64_t priority() const override { return set_.read(&VdirSetValues::priority, std::int64_t(0)); }
  std::optional<platform::DateComponents> startDateComponents() const override { return std::nullopt; }
  void setCompleted(bool completed) override;
  std::string description() const override;
};

}  // namespace vesp::vdir
