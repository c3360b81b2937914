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
};

}  // namespace vesp::platform
