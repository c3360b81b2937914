// What events and reminders have in common. Attributes the platform may omit are optional (or
// null pointers); an absent list is distinct from an empty one.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/platform/Date.h"
#include "support/platform/EKAlarm.h"
#include "support/platform/EKCalendar.h"
#include "support/platform/EKParticipant.h"
#include "support/platform/EKRecurrenceRule.h"
#include "support/platform/NSObject.h"
#include "support/platform/TimeZone.h"
#include "support/platform/URL.h"

namespace vesp::platform {

class EKCalendarItem : public NSObject {
 public:
  virtual std::shared_ptr<EKCalendar> calendar() const = 0;
  virtual std::string calendarItemIdentifier() const = 0;
  virtual std::optional<std::string> calendarItemExternalIdentifier() const = 0;
  virtual std::optional<Date> creationDate() const = 0;
  virtual std::optional<Date> lastModifiedDate() const = 0;
  virtual std::optional<std::string> location() const = 0;
  virtual std::optional<std::string> notes() const = 0;
  virtual std::optional<platform::URL> URL() const = 0;
  virtual std::optional<TimeZone> timeZone() const = 0;
  virtual std::optional<std::string> title() const = 0;
  virtual std::optional<std::vector<std::shared_ptr<EKAlarm>>> alarms() const = 0;
  virtual std::optional<std::vector<std::shared_ptr<EKParticipant>>> attendees() const = 0;
  virtual std::optional<std::vector<std::shared_ptr<EKRecurrenceRule>>> recurrenceRules() const = 0;

  // Setters change this object, and its reads answer what was set; EKEventStore's saveEvent writes
  // it to the store. Absent clears the attribute.
  virtual void setTitle(std::optional<std::string> title) = 0;
  virtual void setLocation(std::optional<std::string> location) = 0;
  virtual void setNotes(std::optional<std::string> notes) = 0;
  virtual void setURL(std::optional<platform::URL> url) = 0;
  // The zone the item's times are stated in; the instants stay. Absent: floating times.
  virtual void setTimeZone(std::optional<TimeZone> timeZone) = 0;
  // Null sets the calendar to none.
  virtual void setCalendar(std::shared_ptr<EKCalendar> calendar) = 0;
  // The item's alarms and repeat rules, replacing those it has; absent or empty removes them.
  virtual void setAlarms(std::optional<std::vector<std::shared_ptr<EKAlarm>>> alarms) = 0;
  virtual void setRecurrenceRules(std::optional<std::vector<std::shared_ptr<EKRecurrenceRule>>> rules) = 0;
};

}  // namespace vesp::platform
