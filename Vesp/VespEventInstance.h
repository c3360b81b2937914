// One occurrence of a calendar event, copied from the platform's event. Every record made from a
// platform event carries the withOccurrenceDate form of its identifier.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Vesp/VespAlarm.h"
#include "Vesp/VespCalendar.h"
#include "Vesp/VespEventAvailability.h"
#include "Vesp/VespEventInstanceIdentifier.h"
#include "Vesp/VespEventParticipant.h"
#include "Vesp/VespEventStatus.h"
#include "Vesp/VespRecurrenceRule.h"
#include "Vesp/VespStructuredLocation.h"
#include "support/platform/Date.h"
#include "support/platform/EKEvent.h"
#include "support/platform/TimeZone.h"
#include "support/platform/URL.h"

namespace vesp {

class VespEventInstance {
 public:
  // Memberwise: 25 arguments. There is none for eventInstanceIdentifier, which is always
  // withOccurrenceDate(eventIdentifier, occurrenceDate); occurrenceDate is stored as
  // originalOccurrenceDate.
  VespEventInstance(std::optional<std::vector<VespAlarm>> alarms,
                    std::optional<std::vector<VespEventParticipant>> attendees, VespEventAvailability availability,
                    std::optional<std::string> birthdayContactIdentifier, VespCalendar calendar,
                    std::string calendarItemIdentifier, std::string calendarItemExternalIdentifier,
                    std::optional<platform::Date> creationDate, platform::Date endDate, std::string eventIdentifier,
                    bool isAllDay, bool isDetached, std::optional<platform::Date> lastModifiedDate,
                    std::optional<std::string> location, std::optional<std::string> notes,
                    platform::Date occurrenceDate, std::optional<VespEventParticipant> organizer,
                    std::optional<std::vector<VespRecurrenceRule>> recurrenceRules, platform::Date startDate,
                    VespEventStatus status, std::optional<VespStructuredLocation> structuredLocation,
                    std::optional<platform::TimeZone> timeZone, std::string title, std::optional<double> travelTime,
                    std::optional<platform::URL> url);

  // Reads the platform event's attributes in field order. An absent calendar, external
  // identifier, end date, event identifier (at either read), occurrence date (at its second
  // read), start date or title stops the process, as do the calendar's own fatal cases.
  explicit VespEventInstance(const platform::EKEvent& event);

  const std::optional<std::vector<VespAlarm>>& alarms() const { return alarms_; }
  const std::optional<std::vector<VespEventParticipant>>& attendees() const { return attendees_; }
  VespEventAvailability availability() const { return availability_; }
  const std::optional<std::string>& birthdayContactIdentifier() const { return birthdayContactIdentifier_; }
  const VespCalendar& calendar() const { return calendar_; }
  const std::string& calendarItemIdentifier() const { return calendarItemIdentifier_; }
  const std::string& calendarItemExternalIdentifier() const { return calendarItemExternalIdentifier_; }
  const std::optional<platform::Date>& creationDate() const { return creationDate_; }
  platform::Date endDate() const { return endDate_; }
  const std::string& eventIdentifier() const { return eventIdentifier_; }
  const VespEventInstanceIdentifier& eventInstanceIdentifier() const { return eventInstanceIdentifier_; }
  bool isAllDay() const { return isAllDay_; }
  bool isDetached() const { return isDetached_; }
  const std::optional<platform::Date>& lastModifiedDate() const { return lastModifiedDate_; }
  const std::optional<std::string>& location() const { return location_; }
  const std::optional<std::string>& notes() const { return notes_; }
  platform::Date originalOccurrenceDate() const { return originalOccurrenceDate_; }
  const std::optional<VespEventParticipant>& organizer() const { return organizer_; }
  const std::optional<std::vector<VespRecurrenceRule>>& recurrenceRules() const { return recurrenceRules_; }
  platform::Date startDate() const { return startDate_; }
  VespEventStatus status() const { return status_; }
  const std::optional<VespStructuredLocation>& structuredLocation() const { return structuredLocation_; }
  const std::optional<platform::TimeZone>& timeZone() const { return timeZone_; }
  const std::string& title() const { return title_; }
  const std::optional<double>& travelTime() const { return travelTime_; }
  const std::optional<platform::URL>& url() const { return url_; }

  friend bool operator==(const VespEventInstance&, const VespEventInstance&) = default;

 private:
  std::optional<std::vector<VespAlarm>> alarms_;
  std::optional<std::vector<VespEventParticipant>> attendees_;
  VespEventAvailability availability_;
  std::optional<std::string> birthdayContactIdentifier_;
  VespCalendar calendar_;
  std::string calendarItemIdentifier_;
  std::string calendarItemExternalIdentifier_;
  std::optional<platform::Date> creationDate_;
  platform::Date endDate_;
  std::string eventIdentifier_;
  VespEventInstanceIdentifier eventInstanceIdentifier_;
  bool isAllDay_;
  bool isDetached_;
  std::optional<platform::Date> lastModifiedDate_;
  std::optional<std::string> location_;
  std::optional<std::string> notes_;
  platform::Date originalOccurrenceDate_;
  std::optional<VespEventParticipant> organizer_;
  std::optional<std::vector<VespRecurrenceRule>> recurrenceRules_;
  platform::Date startDate_;
  VespEventStatus status_;
  std::optional<VespStructuredLocation> structuredLocation_;
  std::optional<platform::TimeZone> timeZone_;
  std::string title_;
  std::optional<double> travelTime_;
  std::optional<platform::URL> url_;
};

std::ostream& operator<<(std::ostream& out, const VespEventInstance& event);

// The travel time a platform event stores under "travelTime": absent when nothing is stored, when
// it is not a number, or when it is exactly 0; any other number unchanged.
std::optional<double> vespTravelTime(const std::optional<platform::AnyObject>& stored);

}  // namespace vesp
