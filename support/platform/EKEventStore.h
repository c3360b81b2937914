// A connection to the calendar store.
//
// Thread safety: every operation may be called from any thread. Queries answer directly, blocking
// the caller; access-request and reminder-fetch completions arrive on threads of the platform's
// choosing. A store hands out the same calendar object for the same calendar.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/platform/EKCalendar.h"
#include "support/platform/EKEvent.h"
#include "support/platform/EKReminder.h"
#include "support/platform/NSError.h"
#include "support/platform/NSObject.h"

namespace vesp::platform {

// An opaque query, made by a store and understood only by that store's kind.
class EKPredicate : public NSObject {};

class EKEventStore : public NSObject {
 public:
  using CalendarList = std::optional<std::vector<std::shared_ptr<EKCalendar>>>;
  using ReminderFetchCompletion = std::function<void(std::optional<std::vector<std::shared_ptr<EKReminder>>>)>;
  using AccessCompletion = std::function<void(bool granted, std::optional<NSError> error)>;

  // The calendars holding items of `entityType`; never absent.
  virtual std::vector<std::shared_ptr<EKCalendar>> calendarsForEntityType(EKEntityType entityType) = 0;

  // Occurrences in [startDate, endDate) of the given calendars (none: every calendar).
  virtual std::shared_ptr<EKPredicate> predicateForEventsWithStartDate(Date startDate, Date endDate,
                                                                       const CalendarList& calendars) = 0;
  virtual std::vector<std::shared_ptr<EKEvent>> eventsMatchingPredicate(
      const std::shared_ptr<EKPredicate>& predicate) = 0;
  // An occurrence of the event with this identifier, or null.
  virtual std::shared_ptr<EKEvent> eventWithIdentifier(const std::string& identifier) = 0;

  // Incomplete reminders due in [starting, ending); an absent bound is open.
  virtual std::shared_ptr<EKPredicate> predicateForIncompleteRemindersWithDueDateStarting(
      std::optional<Date> starting, std::optional<Date> ending, const CalendarList& calendars) = 0;
  // Completed reminders completed in [starting, ending); an absent bound is open.
  virtual std::shared_ptr<EKPredicate> predicateForCompletedRemindersWithCompletionDateStarting(
      std::optional<Date> starting, std::optional<Date> ending, const CalendarList& calendars) = 0;
  // Starts a fetch; the completion is called once, on a platform thread, with the reminders or
  // none. Returns the fetch's identifier.
  virtual std::string fetchRemindersMatchingPredicate(const std::shared_ptr<EKPredicate>& predicate,
                                                      ReminderFetchCompletion completion) = 0;
  // The event or reminder with this calendar-item identifier, or null.
  virtual std::shared_ptr<EKCalendarItem> calendarItemWithIdentifier(const std::string& identifier) = 0;

  // Writes a new event, or what was set on an occurrence: for an occurrence of a recurring event,
  // `span` says whether for it alone or for it and every later one (from the first occurrence, the
  // whole series). Nothing on success; else the platform's error (its domain and codes are the
  // platform's own, documented with it), and the store is as it was.
  virtual std::optional<NSError> saveEvent(const std::shared_ptr<EKEvent>& event, EKSpan span) = 0;
  // Removes the occurrence, it and every later one, or (from the first occurrence) the event.
  virtual std::optional<NSError> removeEvent(const std::shared_ptr<EKEvent>& event, EKSpan span) = 0;

  // Writes a new reminder, or what was set on one. Nothing on success; else the platform's error,
  // and the store is as it was.
  virtual std::optional<NSError> saveReminder(const std::shared_ptr<EKReminder>& reminder) = 0;
  virtual std::optional<NSError> removeReminder(const std::shared_ptr<EKReminder>& reminder) = 0;

  // Asks the user for access; the completion is called once, on a platform thread.
  virtual void requestAccessToEntityType(EKEntityType entityType, AccessCompletion completion) = 0;
};

}  // namespace vesp::platform
