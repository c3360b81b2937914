// A recurrence rule, its end, and a day of the week within it. Number lists are lists of dynamic
// platform values, as the platform hands them out; each is expected to be an NSNumber.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/platform/AnyObject.h"
#include "support/platform/Date.h"
#include "support/platform/EKTypes.h"
#include "support/platform/NSObject.h"

namespace vesp::platform {

class EKRecurrenceEnd : public NSObject {
 public:
  virtual std::optional<Date> endDate() const = 0;
  virtual std::int64_t occurrenceCount() const = 0;
};

class EKRecurrenceDayOfWeek : public NSObject {
 public:
  virtual EKWeekday dayOfTheWeek() const = 0;
  virtual std::int64_t weekNumber() const = 0;
};

class EKRecurrenceRule : public NSObject {
 public:
  using NumberList = std::optional<std::vector<AnyObject>>;

  virtual std::string calendarIdentifier() const = 0;
  virtual NumberList daysOfTheMonth() const = 0;
  virtual std::optional<std::vector<std::shared_ptr<EKRecurrenceDayOfWeek>>> daysOfTheWeek() const = 0;
  virtual NumberList daysOfTheYear() const = 0;
  virtual std::int64_t firstDayOfTheWeek() const = 0;
  virtual EKRecurrenceFrequency frequency() const = 0;
  virtual std::int64_t interval() const = 0;
  virtual NumberList monthsOfTheYear() const = 0;
  virtual std::shared_ptr<EKRecurrenceEnd> recurrenceEnd() const = 0;
  virtual NumberList setPositions() const = 0;
  virtual NumberList weeksOfTheYear() const = 0;
};

}  // namespace vesp::platform
