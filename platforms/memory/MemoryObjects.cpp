// Accessors of the memory platform objects: each reads one field under the object's lock and
// logs the read.
#include "platforms/memory/MemoryObjects.h"

#include <sstream>

namespace vesp::memory {

std::string MemorySource::sourceIdentifier() const {
  return read("sourceIdentifier", [](const auto& f) { return f.sourceIdentifier; });
}
platform::EKSourceType MemorySource::sourceType() const {
  return read("sourceType", [](const auto& f) { return f.sourceType; });
}
std::string MemorySource::title() const {
  return read("title", [](const auto& f) { return f.title; });
}

bool MemoryCalendar::allowsContentModifications() const {
  return read("allowsContentModifications", [](const auto& f) { return f.allowsContentModifications; });
}
platform::EKEntityMask MemoryCalendar::allowedEntityTypes() const {
  return read("allowedEntityTypes", [](const auto& f) { return f.allowedEntityTypes; });
}
std::string MemoryCalendar::calendarIdentifier() const {
  return read("calendarIdentifier", [](const auto& f) { return f.calendarIdentifier; });
}
platform::CGColorRef MemoryCalendar::CGColor() const {
  return read("CGColor", [](const auto& f) { return f.color; });
}
bool MemoryCalendar::isImmutable() const {
  return read("isImmutable", [](const auto& f) { return f.isImmutable; });
}
bool MemoryCalendar::isSubscribed() const {
  return read("isSubscribed", [](const auto& f) { return f.isSubscribed; });
}
std::shared_ptr<platform::EKSource> MemoryCalendar::source() const {
  return read("source", [](const auto& f) { return f.source; });
}
platform::EKCalendarEventAvailabilityMask MemoryCalendar::supportedEventAvailabilities() const {
  return read("supportedEventAvailabilities", [](const auto& f) { return f.supportedEventAvailabilities; });
}
std::string MemoryCalendar::title() const {
  return read("title", [](const auto& f) { return f.title; });
}
platform::EKCalendarType MemoryCalendar::type() const {
  return read("type", [](const auto& f) { return f.type; });
}

bool MemoryParticipant::isCurrentUser() const {
  return read("isCurrentUser", [](const auto& f) { return f.isCurrentUser; });
}
std::optional<std::string> MemoryParticipant::name() const {
  return read("name", [](const auto& f) { return f.name; });
}
platform::EKParticipantRole MemoryParticipant::participantRole() const {
  return read("participantRole", [](const auto& f) { return f.participantRole; });
}
platform::EKParticipantStatus MemoryParticipant::participantStatus() const {
  return read("participantStatus", [](const auto& f) { return f.participantStatus; });
}
platform::EKParticipantType MemoryParticipant::participantType() const {
  return read("participantType", [](const auto& f) { return f.participantType; });
}
platform::URL MemoryParticipant::URL() const {
  return read("URL", [](const auto& f) { return f.url; });
}

std::optional<platform::CLLocation> MemoryStructuredLocation::geoLocation() const {
  return read("geoLocation", [](const auto& f) { return f.geoLocation; });
}
double MemoryStructuredLocation::radius() const {
  return read("radius", [](const auto& f) { return f.radius; });
}
std::optional<std::string> MemoryStructuredLocation::title() const {
  return read("title", [](const auto& f) { return f.title; });
}

std::optional<platform::Date> MemoryAlarm::absoluteDate() const {
  return read("absoluteDate", [](const auto& f) { return f.absoluteDate; });
}
platform::EKAlarmProximity MemoryAlarm::proximity() const {
  return read("proximity", [](const auto& f) { return f.proximity; });
}
double MemoryAlarm::relativeOffset() const {
  return read("relativeOffset", [](const auto& f) { return f.relativeOffset; });
}
std::shared_ptr<platform::EKStructuredLocation> MemoryAlarm::structuredLocation() const {
  return read("structuredLocation", [](const auto& f) { return f.structuredLocation; });
}
platform::EKAlarmType MemoryAlarm::type() const {
  return read("type", [](const auto& f) { return f.type; });
}

std::optional<platform::Date> MemoryRecurrenceEnd::endDate() const {
  return read("endDate", [](const auto& f) { return f.endDate; });
}
std::int64_t MemoryRecurrenceEnd::occurrenceCount() const {
  return read("occurrenceCount", [](const auto& f) { return f.occurrenceCount; });
}

platform::EKWeekday MemoryRecurrenceDayOfWeek::dayOfTheWeek() const {
  return read("dayOfTheWeek", [](const auto& f) { return f.dayOfTheWeek; });
}
std::int64_t MemoryRecurrenceDayOfWeek::weekNumber() const {
  return read("weekNumber", [](const auto& f) { return f.weekNumber; });
}

std::string MemoryRecurrenceRule::calendarIdentifier() const {
  return read("calendarIdentifier", [](const auto& f) { return f.calendarIdentifier; });
}
MemoryRecurrenceRule::NumberList MemoryRecurrenceRule::daysOfTheMonth() const {
  return read("daysOfTheMonth", [](const auto& f) { return f.daysOfTheMonth; });
}
std::optional<std::vector<std::shared_ptr<platform::EKRecurrenceDayOfWeek>>> MemoryRecurrenceRule::daysOfTheWeek() const {
  return read("daysOfTheWeek", [](const auto& f) { return f.daysOfTheWeek; });
}
MemoryRecurrenceRule::NumberList MemoryRecurrenceRule::daysOfTheYear() const {
  return read("daysOfTheYear", [](const auto& f) { return f.daysOfTheYear; });
}
std::int64_t MemoryRecurrenceRule::firstDayOfTheWeek() const {
  return read("firstDayOfTheWeek", [](const auto& f) { return f.firstDayOfTheWeek; });
}
platform::EKRecurrenceFrequency MemoryRecurrenceRule::frequency() const {
  return read("frequency", [](const auto& f) { return f.frequency; });
}
std::int64_t MemoryRecurrenceRule::interval() const {
  return read("interval", [](const auto& f) { return f.interval; });
}
MemoryRecurrenceRule::NumberList MemoryRecurrenceRule::monthsOfTheYear() const {
  return read("monthsOfTheYear", [](const auto& f) { return f.monthsOfTheYear; });
}
std::shared_ptr<platform::EKRecurrenceEnd> MemoryRecurrenceRule::recurrenceEnd() const {
  return read("recurrenceEnd", [](const auto& f) { return f.recurrenceEnd; });
}
MemoryRecurrenceRule::NumberList MemoryRecurrenceRule::setPositions() const {
  return read("setPositions", [](const auto& f) { return f.setPositions; });
}
MemoryRecurrenceRule::NumberList MemoryRecurrenceRule::weeksOfTheYear() const {
  return read("weeksOfTheYear", [](const auto& f) { return f.weeksOfTheYear; });
}

platform::EKEventAvailability MemoryEvent::availability() const {
  return read("availability", [](const auto& f) { return f.availability; });
}
std::optional<std::string> MemoryEvent::birthdayContactIdentifier() const {
  return read("birthdayContactIdentifier", [](const auto& f) { return f.birthdayContactIdentifier; });
}
std::optional<platform::Date> MemoryEvent::endDate() const {
  return read("endDate", [](const auto& f) { return f.endDate; });
}
std::optional<std::string> MemoryEvent::eventIdentifier() const {
  return read("eventIdentifier", [](const auto& f) { return f.eventIdentifier; });
}
std::optional<platform::Date> MemoryEvent::occurrenceDate() const {
  return read("occurrenceDate", [](const auto& f) { return f.occurrenceDate; });
}
bool MemoryEvent::isAllDay() const {
  return read("isAllDay", [](const auto& f) { return f.isAllDay; });
}
bool MemoryEvent::isDetached() const {
  return read("isDetached", [](const auto& f) { return f.isDetached; });
}
std::shared_ptr<platform::EKParticipant> MemoryEvent::organizer() const {
  return read("organizer", [](const auto& f) { return f.organizer; });
}
std::optional<platform::Date> MemoryEvent::startDate() const {
  return read("startDate", [](const auto& f) { return f.startDate; });
}
platform::EKEventStatus MemoryEvent::status() const {
  return read("status", [](const auto& f) { return f.status; });
}
std::shared_ptr<platform::EKStructuredLocation> MemoryEvent::structuredLocation() const {
  return read("structuredLocation", [](const auto& f) { return f.structuredLocation; });
}

std::optional<platform::Date> MemoryReminder::completionDate() const {
  return read("completionDate", [](const auto& f) { return f.completionDate; });
}
std::optional<platform::DateComponents> MemoryReminder::dueDateComponents() const {
  return read("dueDateComponents", [](const auto& f) { return f.dueDateComponents; });
}
bool MemoryReminder::isCompleted() const {
  return read("isCompleted", [](const auto& f) { return f.isCompleted; });
}
std::int64_t MemoryReminder::priority() const {
  return read("priority", [](const auto& f) { return f.priority; });
}
std::optional<platform::DateComponents> MemoryReminder::startDateComponents() const {
  return read("startDateComponents", [](const auto& f) { return f.startDateComponents; });
}

std::string MemorySource::description() const { return "<EKSource " + fields().title + ">"; }

std::string MemoryCalendar::description() const {
  auto f = fields();
  return "<EKCalendar '" + f.title + "' " + f.calendarIdentifier + ">";
}

std::optional<platform::AnyObject> MemoryEvent::valueForKey(const std::string& key) const {
  return read("valueForKey", [&](const auto& f) -> std::optional<platform::AnyObject> {
    auto found = f.values.find(key);
    if (found == f.values.end()) return std::nullopt;
    return found->second;
  });
}

void MemoryEvent::setStartDate(platform::Date startDate) { update([&](auto& f) { f.startDate = startDate; }); }
void MemoryEvent::setEndDate(platform::Date endDate) { update([&](auto& f) { f.endDate = endDate; }); }
void MemoryEvent::setAllDay(bool allDay) { update([&](auto& f) { f.isAllDay = allDay; }); }
void MemoryEvent::setAvailability(platform::EKEventAvailability availability) {
  update([&](auto& f) { f.availability = availability; });
}

std::string MemoryEvent::description() const {
  auto f = fields();
  std::ostringstream out;
  out << "<EKEvent '" << f.item.title.value_or("") << "'";
  if (f.startDate) out << " " << *f.startDate;
  out << ">";
  return out.str();
}

void MemoryReminder::setCompleted(bool completed) {
  update([&](MemoryReminderFields& f) {
    if (completed && !f.isCompleted) f.completionDate = platform::Date::now();
    if (!completed) f.completionDate = std::nullopt;
    f.isCompleted = completed;
  });
}
void MemoryReminder::setPriority(std::int64_t priority) { update([&](auto& f) { f.priority = priority; }); }
void MemoryReminder::setDueDateComponents(std::optional<platform::DateComponents> components) {
  update([&](auto& f) { f.dueDateComponents = std::move(components); });
}

std::string MemoryReminder::description() const {
  return "<EKReminder '" + fields().item.title.value_or("") + "'>";
}

platform::EKRecurrenceRule::NumberList numbers(std::initializer_list<long long> values) {
  std::vector<platform::AnyObject> list;
  for (long long value : values) list.emplace_back(platform::NSNumber(value));
  return list;
}

}  // namespace vesp::memory
