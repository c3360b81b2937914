// A reminder (a to-do item).
#pragma once

#include <cstdint>
#include <optional>

#include "support/platform/DateComponents.h"
#include "support/platform/EKCalendarItem.h"

namespace vesp::platform {

class EKReminder : public EKCalendarItem {
 public:
  virtual std::optional<Date> completionDate() const = 0;
  virtual std::optional<DateComponents> dueDateComponents() const = 0;
  virtual bool isCompleted() const = 0;
  // 0 none, 1-4 high, 5 medium, 6-9 low.
  virtual std::int64_t priority() const = 0;
  virtual std::optional<DateComponents> startDateComponents() const = 0;

  // Completing sets the completion date to now; reopening clears it.
  virtual void setCompleted(bool completed) = 0;
  // 0 none, 1-9 (the store refuses other values).
  virtual void setPriority(std::int64_t priority) = 0;
  // A day (year, month, day), or a day and time, with its zone or none (floating); absent: no due date.
  virtual void setDueDateComponents(std::optional<DateComponents> components) = 0;
};

}  // namespace vesp::platform
