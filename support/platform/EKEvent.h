// One occurrence of a calendar event. Its setters (and those of EKCalendarItem) change the object;
// EKEventStore's saveEvent writes the changes to the store. A new event comes from the platform's
// eventWithEventStore.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "support/platform/AnyObject.h"
#include "support/platform/EKCalendarItem.h"
#include "support/platform/EKStructuredLocation.h"

namespace vesp::platform {

class EKEvent : public EKCalendarItem {
 public:
  virtual EKEventAvailability availability() const = 0;
  virtual std::optional<std::string> birthdayContactIdentifier() const = 0;
  virtual std::optional<Date> endDate() const = 0;
  virtual std::optional<std::string> eventIdentifier() const = 0;
  virtual std::optional<Date> occurrenceDate() const = 0;
  virtual bool isAllDay() const = 0;
  virtual bool isDetached() const = 0;
  virtual std::shared_ptr<EKParticipant> organizer() const = 0;
  virtual std::optional<Date> startDate() const = 0;
  virtual EKEventStatus status() const = 0;
  virtual std::shared_ptr<EKStructuredLocation> structuredLocation() const = 0;
  // The generic key-value read; absent when the event stores nothing under `key`.
  virtual std::optional<AnyObject> valueForKey(const std::string& key) const = 0;

  virtual void setStartDate(Date startDate) = 0;
  virtual void setEndDate(Date endDate) = 0;
  virtual void setAllDay(bool allDay) = 0;
  // How the event shows its owner's time: busy, free, tentative or unavailable (out of office).
  virtual void setAvailability(EKEventAvailability availability) = 0;
};

}  // namespace vesp::platform
