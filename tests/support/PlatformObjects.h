// Fully filled memory platform objects, for tests to copy and change one field of.
#pragma once

#include <memory>

#include "platforms/memory/MemoryObjects.h"

namespace vesp::testing {

using namespace vesp::memory;

inline std::shared_ptr<MemorySource> makeSource(std::string title = "iCloud") {
  return std::make_shared<MemorySource>(MemorySourceFields{"source-1", 2, std::move(title)});
}

inline MemoryCalendarFields fullCalendarFields() {
  MemoryCalendarFields f;
  f.allowsContentModifications = true;
  f.allowedEntityTypes = platform::EKEntityMaskEvent;
  f.calendarIdentifier = "calendar-1";
  f.color = platform::CGColorCreate(0.1, 0.5, 0.9);
  f.isImmutable = false;
  f.isSubscribed = false;
  f.source = makeSource();
  f.supportedEventAvailabilities = 3;
  f.title = "Work";
  f.type = 1;
  return f;
}

inline std::shared_ptr<MemoryCalendar> makeCalendar(MemoryCalendarFields fields = fullCalendarFields()) {
  return std::make_shared<MemoryCalendar>(std::move(fields));
}

inline std::shared_ptr<MemoryParticipant> makeParticipant(std::string name, platform::EKParticipantStatus status = 2) {
  return std::make_shared<MemoryParticipant>(
      MemoryParticipantFields{false, std::move(name), 1, status, 1, platform::URL("mailto:someone@example.org")});
}

inline std::shared_ptr<MemoryStructuredLocation> makeLocation(std::string title = "Office") {
  return std::make_shared<MemoryStructuredLocation>(
      MemoryStructuredLocationFields{platform::CLLocation(52.52, 13.405), 150.0, std::move(title)});
}

inline std::shared_ptr<MemoryAlarm> makeAlarm(double relativeOffset = -900.0) {
  return std::make_shared<MemoryAlarm>(MemoryAlarmFields{std::nullopt, 0, relativeOffset, nullptr, 0});
}

inline MemoryRecurrenceRuleFields fullRuleFields() {
  MemoryRecurrenceRuleFields f;
  f.calendarIdentifier = "gregorian";
  f.daysOfTheMonth = numbers({1, 15, -1});
  f.daysOfTheWeek = std::vector<std::shared_ptr<platform::EKRecurrenceDayOfWeek>>{
      std::make_shared<MemoryRecurrenceDayOfWeek>(MemoryRecurrenceDayOfWeekFields{2, 0}),
      std::make_shared<MemoryRecurrenceDayOfWeek>(MemoryRecurrenceDayOfWeekFields{6, -1})};
  f.daysOfTheYear = numbers({1, 100});
  f.firstDayOfTheWeek = 2;
  f.frequency = 2;
  f.interval = 1;
  f.monthsOfTheYear = numbers({1, 6});
  f.recurrenceEnd = std::make_shared<MemoryRecurrenceEnd>(MemoryRecurrenceEndFields{std::nullopt, 10});
  f.setPositions = numbers({-1});
  f.weeksOfTheYear = numbers({1, 52});
  return f;
}

inline std::shared_ptr<MemoryRecurrenceRule> makeRule(MemoryRecurrenceRuleFields fields = fullRuleFields()) {
  return std::make_shared<MemoryRecurrenceRule>(std::move(fields));
}

// A complete occurrence of a repeating event, every optional attribute present.
inline MemoryEventFields fullEventFields() {
  MemoryEventFields f;
  f.item.calendar = makeCalendar();
  f.item.calendarItemIdentifier = "item-1";
  f.item.calendarItemExternalIdentifier = "external-1";
  f.item.creationDate = platform::Date(1000);
  f.item.lastModifiedDate = platform::Date(2000);
  f.item.location = "Room 4";
  f.item.notes = "Bring slides";
  f.item.url = platform::URL("https://example.org/meeting");
  f.item.timeZone = platform::TimeZone("Europe/Berlin");
  f.item.title = "Standup";
  f.item.alarms = std::vector<std::shared_ptr<platform::EKAlarm>>{makeAlarm(-900), makeAlarm(-60)};
  f.item.attendees = std::vector<std::shared_ptr<platform::EKParticipant>>{makeParticipant("Ann"), makeParticipant("Bo")};
  f.item.recurrenceRules = std::vector<std::shared_ptr<platform::EKRecurrenceRule>>{makeRule()};
  f.availability = 0;
  f.birthdayContactIdentifier = std::nullopt;
  f.endDate = platform::Date(694224000 + 900);
  f.eventIdentifier = "E1";
  f.occurrenceDate = platform::Date(694224000);
  f.isAllDay = false;
  f.isDetached = false;
  f.organizer = makeParticipant("Cy");
  f.startDate = platform::Date(694224000);
  f.status = 1;
  f.structuredLocation = makeLocation();
  f.values.emplace("travelTime", platform::AnyObject(platform::NSNumber(1800)));
  return f;
}

inline std::shared_ptr<MemoryEvent> makeEvent(MemoryEventFields fields = fullEventFields()) {
  return std::make_shared<MemoryEvent>(std::move(fields));
}

inline MemoryReminderFields fullReminderFields() {
  MemoryReminderFields f;
  MemoryCalendarFields list = fullCalendarFields();
  list.allowedEntityTypes = platform::EKEntityMaskReminder;
  list.title = "Groceries";
  f.item.calendar = makeCalendar(list);
  f.item.calendarItemIdentifier = "item-2";
  f.item.calendarItemExternalIdentifier = "external-2";
  f.item.creationDate = platform::Date(100);
  f.item.lastModifiedDate = platform::Date(200);
  f.item.location = "Market";
  f.item.notes = "Oat milk";
  f.item.url = platform::URL("https://example.org/list");
  f.item.title = "Buy milk";
  f.item.alarms = std::vector<std::shared_ptr<platform::EKAlarm>>{makeAlarm()};
  f.item.attendees = std::vector<std::shared_ptr<platform::EKParticipant>>{};
  f.item.recurrenceRules = std::vector<std::shared_ptr<platform::EKRecurrenceRule>>{makeRule()};
  platform::DateComponents due;
  due.year = 2026;
  due.month = 11;
  due.day = 23;
  f.dueDateComponents = due;
  f.startDateComponents = due;
  f.priority = 5;
  return f;
}

inline std::shared_ptr<MemoryReminder> makeReminder(MemoryReminderFields fields = fullReminderFields()) {
  return std::make_shared<MemoryReminder>(std::move(fields));
}

}  // namespace vesp::testing
