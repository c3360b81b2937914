// The memory platform's objects: plain settable sources, calendars, participants, locations,
// alarms, recurrence rules, events and reminders. Every attribute can be set, absent ones included
// (a null calendar, an absent title), so that each of the library's paths can be provoked.
//
// Thread safety: every accessor and setter may be called from any thread.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platforms/memory/MemoryRecord.h"
#include "support/platform/EKAlarm.h"
#include "support/platform/EKCalendar.h"
#include "support/platform/EKEvent.h"
#include "support/platform/EKParticipant.h"
#include "support/platform/EKRecurrenceRule.h"
#include "support/platform/EKReminder.h"
#include "support/platform/EKSource.h"
#include "support/platform/EKStructuredLocation.h"

namespace vesp::memory {

struct MemorySourceFields {
  std::string sourceIdentifier;
  platform::EKSourceType sourceType = platform::EKSourceTypeLocal;
  std::string title;
};

class MemorySource final : public platform::EKSource, public MemoryRecord<MemorySourceFields> {
 public:
  explicit MemorySource(MemorySourceFields fields) : MemoryRecord(std::move(fields)) {}
  std::string sourceIdentifier() const override;
  platform::EKSourceType sourceType() const override;
  std::string title() const override;
  std::string description() const override;
};

struct MemoryCalendarFields {
  bool allowsContentModifications = true;
  platform::EKEntityMask allowedEntityTypes = platform::EKEntityMaskEvent;
  std::string calendarIdentifier;
  platform::CGColorRef color;  // null: the platform reports no colour
  bool isImmutable = false;
  bool isSubscribed = false;
  std::shared_ptr<platform::EKSource> source;  // null: no source
  platform::EKCalendarEventAvailabilityMask supportedEventAvailabilities = 0;
  std::string title;
  platform::EKCalendarType type = platform::EKCalendarTypeLocal;
};

class MemoryCalendar final : public platform::EKCalendar, public MemoryRecord<MemoryCalendarFields> {
 public:
  explicit MemoryCalendar(MemoryCalendarFields fields) : MemoryRecord(std::move(fields)) {}
  bool allowsContentModifications() const override;
  platform::EKEntityMask allowedEntityTypes() const override;
  std::string calendarIdentifier() const override;
  platform::CGColorRef CGColor() const override;
  bool isImmutable() const override;
  bool isSubscribed() const override;
  std::shared_ptr<platform::EKSource> source() const override;
  platform::EKCalendarEventAvailabilityMask supportedEventAvailabilities() const override;
  std::string title() const override;
  platform::EKCalendarType type() const override;
  std::string description() const override;
};

struct MemoryParticipantFields {
  bool isCurrentUser = false;
  std::optional<std::string> name;
  platform::EKParticipantRole participantRole = platform::EKParticipantRoleUnknown;
  platform::EKParticipantStatus participantStatus = platform::EKParticipantStatusUnknown;
  platform::EKParticipantType participantType = platform::EKParticipantTypeUnknown;
  platform::URL url{""};
};

class MemoryParticipant final : public platform::EKParticipant, public MemoryRecord<MemoryParticipantFields> {
 public:
  explicit MemoryParticipant(MemoryParticipantFields fields) : MemoryRecord(std::move(fields)) {}
  bool isCurrentUser() const override;
  std::optional<std::string> name() const override;
  platform::EKParticipantRole participantRole() const override;
  platform::EKParticipantStatus participantStatus() const override;
  platform::EKParticipantType participantType() const override;
  platform::URL URL() const override;
};

struct MemoryStructuredLocationFields {
  std::optional<platform::CLLocation> geoLocation;
  double radius = 0.0;
  std::optional<std::string> title;
};

class MemoryStructuredLocation final : public platform::EKStructuredLocation,
                                       public MemoryRecord<MemoryStructuredLocationFields> {
 public:
  explicit MemoryStructuredLocation(MemoryStructuredLocationFields fields) : MemoryRecord(std::move(fields)) {}
  std::optional<platform::CLLocation> geoLocation() const override;
  double radius() const override;
  std::optional<std::string> title() const override;
};

struct MemoryAlarmFields {
  std::optional<platform::Date> absoluteDate;
  platform::EKAlarmProximity proximity = platform::EKAlarmProximityNone;
  double relativeOffset = 0.0;
  std::shared_ptr<platform::EKStructuredLocation> structuredLocation;
  platform::EKAlarmType type = platform::EKAlarmTypeDisplay;
};

class MemoryAlarm final : public platform::EKAlarm, public MemoryRecord<MemoryAlarmFields> {
 public:
  explicit MemoryAlarm(MemoryAlarmFields fields) : MemoryRecord(std::move(fields)) {}
  std::optional<platform::Date> absoluteDate() const override;
  platform::EKAlarmProximity proximity() const override;
  double relativeOffset() const override;
  std::shared_ptr<platform::EKStructuredLocation> structuredLocation() const override;
  platform::EKAlarmType type() const override;
};

struct MemoryRecurrenceEndFields {
  std::optional<platform::Date> endDate;
  std::int64_t occurrenceCount = 0;
};

class MemoryRecurrenceEnd final : public platform::EKRecurrenceEnd, public MemoryRecord<MemoryRecurrenceEndFields> {
 public:
  explicit MemoryRecurrenceEnd(MemoryRecurrenceEndFields fields) : MemoryRecord(std::move(fields)) {}
  std::optional<platform::Date> endDate() const override;
  std::int64_t occurrenceCount() const override;
};

struct MemoryRecurrenceDayOfWeekFields {
  platform::EKWeekday dayOfTheWeek = platform::EKWeekdaySunday;
  std::int64_t weekNumber = 0;
};

class MemoryRecurrenceDayOfWeek final : public platform::EKRecurrenceDayOfWeek,
                                        public MemoryRecord<MemoryRecurrenceDayOfWeekFields> {
 public:
  explicit MemoryRecurrenceDayOfWeek(MemoryRecurrenceDayOfWeekFields fields) : MemoryRecord(std::move(fields)) {}
  platform::EKWeekday dayOfTheWeek() const override;
  std::int64_t weekNumber() const override;
};

struct MemoryRecurrenceRuleFields {
  using NumberList = platform::EKRecurrenceRule::NumberList;
  std::string calendarIdentifier = "gregorian";
  NumberList daysOfTheMonth;
  std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceDayOfWeek>>> daysOfTheWeek;
  NumberList daysOfTheYear;
  std::int64_t firstDayOfTheWeek = 0;
  platform::EKRecurrenceFrequency frequency = platform::EKRecurrenceFrequencyDaily;
  std::int64_t interval = 1;
  NumberList monthsOfTheYear;
  std::shared_ptr<platform::EKRecurrenceEnd> recurrenceEnd;
  NumberList setPositions;
  NumberList weeksOfTheYear;
};

class MemoryRecurrenceRule final : public platform::EKRecurrenceRule, public MemoryRecord<MemoryRecurrenceRuleFields> {
 public:
  explicit MemoryRecurrenceRule(MemoryRecurrenceRuleFields fields) : MemoryRecord(std::move(fields)) {}
  std::string calendarIdentifier() const override;
  NumberList daysOfTheMonth() const override;
  std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceDayOfWeek>>> daysOfTheWeek() const override;
  NumberList daysOfTheYear() const override;
  std::int64_t firstDayOfTheWeek() const override;
  platform::EKRecurrenceFrequency frequency() const override;
  std::int64_t interval() const override;
  NumberList monthsOfTheYear() const override;
  std::shared_ptr<platform::EKRecurrenceEnd> recurrenceEnd() const override;
  NumberList setPositions() const override;
  NumberList weeksOfTheYear() const override;
};

// The attributes that events and reminders share.
struct MemoryItemFields {
  std::shared_ptr<platform::EKCalendar> calendar;  // null: no calendar
  std::string calendarItemIdentifier;
  std::optional<std::string> calendarItemExternalIdentifier;
  std::optional<platform::Date> creationDate;
  std::optional<platform::Date> lastModifiedDate;
  std::optional<std::string> location;
  std::optional<std::string> notes;
  std::optional<platform::URL> url;
  std::optional<platform::TimeZone> timeZone;
  std::optional<std::string> title;
  std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> alarms;
  std::optional<std::vector<std::shared_ptr<platform::EKParticipant>>> attendees;
  std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> recurrenceRules;
};

// The calendar-item accessors over a Fields aggregate whose `item` member holds them.
template <class Interface, class Fields>
class MemoryCalendarItem : public Interface, public MemoryRecord<Fields> {
 public:
  explicit MemoryCalendarItem(Fields fields) : MemoryRecord<Fields>(std::move(fields)) {}

  std::shared_ptr<platform::EKCalendar> calendar() const override {
    return this->read("calendar", [](const Fields& f) { return f.item.calendar; });
  }
  std::string calendarItemIdentifier() const override {
    return this->read("calendarItemIdentifier", [](const Fields& f) { return f.item.calendarItemIdentifier; });
  }
  std::optional<std::string> calendarItemExternalIdentifier() const override {
    return this->read("calendarItemExternalIdentifier",
                      [](const Fields& f) { return f.item.calendarItemExternalIdentifier; });
  }
  std::optional<platform::Date> creationDate() const override {
    return this->read("creationDate", [](const Fields& f) { return f.item.creationDate; });
  }
  std::optional<platform::Date> lastModifiedDate() const override {
    return this->read("lastModifiedDate", [](const Fields& f) { return f.item.lastModifiedDate; });
  }
  std::optional<std::string> location() const override {
    return this->read("location", [](const Fields& f) { return f.item.location; });
  }
  std::optional<std::string> notes() const override {
    return this->read("notes", [](const Fields& f) { return f.item.notes; });
  }
  std::optional<platform::URL> URL() const override {
    return this->read("URL", [](const Fields& f) { return f.item.url; });
  }
  std::optional<platform::TimeZone> timeZone() const override {
    return this->read("timeZone", [](const Fields& f) { return f.item.timeZone; });
  }
  std::optional<std::string> title() const override {
    return this->read("title", [](const Fields& f) { return f.item.title; });
  }
  std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> alarms() const override {
    return this->read("alarms", [](const Fields& f) { return f.item.alarms; });
  }
  std::optional<std::vector<std::shared_ptr<platform::EKParticipant>>> attendees() const override {
    return this->read("attendees", [](const Fields& f) { return f.item.attendees; });
  }
  std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> recurrenceRules() const override {
    return this->read("recurrenceRules", [](const Fields& f) { return f.item.recurrenceRules; });
  }
  // A memory item is the world's own object: what is set is what every store reads.
  void setTitle(std::optional<std::string> title) override {
    this->update([&](Fields& f) { f.item.title = std::move(title); });
  }
  void setLocation(std::optional<std::string> location) override {
    this->update([&](Fields& f) { f.item.location = std::move(location); });
  }
  void setNotes(std::optional<std::string> notes) override {
    this->update([&](Fields& f) { f.item.notes = std::move(notes); });
  }
  void setURL(std::optional<platform::URL> url) override {
    this->update([&](Fields& f) { f.item.url = std::move(url); });
  }
  void setTimeZone(std::optional<platform::TimeZone> timeZone) override {
    this->update([&](Fields& f) { f.item.timeZone = std::move(timeZone); });
  }
  void setCalendar(std::shared_ptr<platform::EKCalendar> calendar) override {
    this->update([&](Fields& f) { f.item.calendar = std::move(calendar); });
  }
  void setAlarms(std::optional<std::vector<std::shared_ptr<platform::EKAlarm>>> alarms) override {
    this->update([&](Fields& f) { f.item.alarms = std::move(alarms); });
  }
  void setRecurrenceRules(std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceRule>>> rules) override {
    this->update([&](Fields& f) { f.item.recurrenceRules = std::move(rules); });
  }
};

struct MemoryEventFields {
  MemoryItemFields item;
  platform::EKEventAvailability availability = platform::EKEventAvailabilityBusy;
  std::optional<std::string> birthdayContactIdentifier;
  std::optional<platform::Date> endDate;
  std::optional<std::string> eventIdentifier;
  std::optional<platform::Date> occurrenceDate;
  bool isAllDay = false;
  bool isDetached = false;
  std::shared_ptr<platform::EKParticipant> organizer;
  std::optional<platform::Date> startDate;
  platform::EKEventStatus status = platform::EKEventStatusNone;
  std::shared_ptr<platform::EKStructuredLocation> structuredLocation;
  // What the generic key-value read answers, by key (for example "travelTime").
  std::map<std::string, platform::AnyObject> values;
};

class MemoryEvent final : public MemoryCalendarItem<platform::EKEvent, MemoryEventFields> {
 public:
  explicit MemoryEvent(MemoryEventFields fields) : MemoryCalendarItem(std::move(fields)) {}
  platform::EKEventAvailability availability() const override;
  std::optional<std::string> birthdayContactIdentifier() const override;
  std::optional<platform::Date> endDate() const override;
  std::optional<std::string> eventIdentifier() const override;
  std::optional<platform::Date> occurrenceDate() const override;
  bool isAllDay() const override;
  bool isDetached() const override;
  std::shared_ptr<platform::EKParticipant> organizer() const override;
  std::optional<platform::Date> startDate() const override;
  platform::EKEventStatus status() const override;
  std::shared_ptr<platform::EKStructuredLocation> structuredLocation() const override;
  std::optional<platform::AnyObject> valueForKey(const std::string& key) const override;
  void setStartDate(platform::Date startDate) override;
  void setEndDate(platform::Date endDate) override;
  void setAllDay(bool allDay) override;
  void setAvailability(platform::EKEventAvailability availability) override;
  std::string description() const override;
};

struct MemoryReminderFields {
  MemoryItemFields item;
  std::optional<platform::Date> completionDate;
  std::optional<platform::DateComponents> dueDateComponents;
  bool isCompleted = false;
  std::int64_t priority = 0;
  std::optional<platform::DateComponents> startDateComponents;
};

class MemoryReminder final : public MemoryCalendarItem<platform::EKReminder, MemoryReminderFields> {
 public:
  explicit MemoryReminder(MemoryReminderFields fields) : MemoryCalendarItem(std::move(fields)) {}
  std::optional<platform::Date> completionDate() const override;
  std::optional<platform::DateComponents> dueDateComponents() const override;
  bool isCompleted() const override;
  std::int64_t priority() const override;
  std::optional<platform::DateComponents> startDateComponents() const override;
  void setCompleted(bool completed) override;
  void setPriority(std::int64_t priority) override;
  void setDueDateComponents(std::optional<platform::DateComponents> components) override;
  std::string description() const override;
};

// A list of platform numbers, for recurrence rules: numbers({1, 15, -1}).
platform::EKRecurrenceRule::NumberList numbers(std::initializer_list<long long> values);

}  // namespace vesp::memory
