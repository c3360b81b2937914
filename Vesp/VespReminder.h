// One reminder, copied from the platform's reminder. Date components are kept exactly as the
// platform gives them: never resolved to instants, completed or moved to another time zone.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Vesp/VespAlarm.h"
#include "Vesp/VespCalendar.h"
#include "Vesp/VespEventParticipant.h"
#include "Vesp/VespRecurrenceRule.h"
#include "Vesp/VespReminderPriority.h"
#include "support/platform/Date.h"
#include "support/platform/DateComponents.h"
#include "support/platform/EKReminder.h"
#include "support/platform/TimeZone.h"
#include "support/platform/URL.h"

namespace vesp {

class VespReminder {
 public:
  // Memberwise. The argument order differs from the field order on purpose: isCompleted comes
  // right after dueDateComponents.
  VespReminder(std::optional<std::vector<VespAlarm>> alarms,
               std::optional<std::vector<VespEventParticipant>> attendees, VespCalendar calendar,
               std::string calendarItemIdentifier, std::string calendarItemExternalIdentifier,
               std::optional<platform::Date> completionDate, std::optional<platform::Date> creationDate,
               std::optional<platform::DateComponents> dueDateComponents, bool isCompleted,
               std::optional<platform::Date> lastModifiedDate, std::optional<std::string> location,
               std::optional<std::string> notes, VespReminderPriority priority,
               std::optional<std::vector<VespRecurrenceRule>> recurrenceRules,
               std::optional<platform::DateComponents> startDateComponents, std::optional<platform::TimeZone> timeZone,
               std::string title, std::optional<platform::URL> url);

  // Reads the platform reminder's attributes in the order of the memberwise arguments. An absent
  // calendar, external identifier or title stops the process.
  explicit VespReminder(const platform::EKReminder& reminder);

  const std::optional<std::vector<VespAlarm>>& alarms() const { return alarms_; }
  const std::optional<std::vector<VespEventParticipant>>& attendees() const { return attendees_; }
  const VespCalendar& calendar() const { return calendar_; }
  const std::string& calendarItemIdentifier() const { return calendarItemIdentifier_; }
  const std::string& calendarItemExternalIdentifier() const { return calendarItemExternalIdentifier_; }
  const std::optional<platform::Date>& completionDate() const { return completionDate_; }
  const std::optional<platform::Date>& creationDate() const { return creationDate_; }
  const std::optional<platform::DateComponents>& dueDateComponents() const { return dueDateComponents_; }
  const std::optional<platform::Date>& lastModifiedDate() const { return lastModifiedDate_; }
  const std::optional<std::string>& location() const { return location_; }
  bool isCompleted() const { return isCompleted_; }
  const std::optional<std::string>& notes() const { return notes_; }
  VespReminderPriority priority() const { return priority_; }
  const std::optional<std::vector<VespRecurrenceRule>>& recurrenceRules() const { return recurrenceRules_; }
  const std::optional<platform::DateComponents>& startDateComponents() const { return startDateComponents_; }
  const std::optional<platform::TimeZone>& timeZone() const { return timeZone_; }
  const std::string& title() const { return title_; }
  const std::optional<platform::URL>& url() const { return url_; }

  friend bool operator==(const VespReminder&, const VespReminder&) = default;

 private:
  std::optional<std::vector<VespAlarm>> alarms_;
  std::optional<std::vector<VespEventParticipant>> attendees_;
  VespCalendar calendar_;
  std::string calendarItemIdentifier_;
  std::string calendarItemExternalIdentifier_;
  std::optional<platform::Date> completionDate_;
  std::optional<platform::Date> creationDate_;
  std::optional<platform::DateComponents> dueDateComponents_;
  std::optional<platform::Date> lastModifiedDate_;
  std::optional<std::string> location_;
  bool isCompleted_;
  std::optional<std::string> notes_;
  VespReminderPriority priority_;
  std::optional<std::vector<VespRecurrenceRule>> recurrenceRules_;
  std::optional<platform::DateComponents> startDateComponents_;
  std::optional<platform::TimeZone> timeZone_;
  std::string title_;
  std::optional<platform::URL> url_;
};

std::ostream& operator<<(std::ostream& out, const VespReminder& reminder);

}  // namespace vesp
