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
  // Ends for a host to set on a rule: through an instant, or after a number of occurrences.
  static std::shared_ptr<EKRecurrenceEnd> recurrenceEndWithEndDate(Date endDate);
  static std::shared_ptr<EKRecurrenceEnd> recurrenceEndWithOccurrenceCount(std::int64_t occurrenceCount);

  virtual std::optional<Date> endDate() const = 0;
  virtual std::int64_t occurrenceCount() const = 0;
};

class EKRecurrenceDayOfWeek : public NSObject {
 public:
  // `dayOfTheWeek` in every week of the rule's period (`weekNumber` 0), or in the given week of it
  // (1 the first, -1 the last).
  static std::shared_ptr<EKRecurrenceDayOfWeek> dayOfWeek(EKWeekday dayOfTheWeek, std::int64_t weekNumber = 0);

  virtual EKWeekday dayOfTheWeek() const = 0;
  virtual std::int64_t weekNumber() const = 0;
};

class EKRecurrenceRule : public NSObject {
 public:
  using NumberList = std::optional<std::vector<AnyObject>>;
  // A rule for a host to set on an item: every `interval` days, weeks, months or years, with no
  // end when `end` is null. The second form also names days, months, weeks and positions.
  static std::shared_ptr<EKRecurrenceRule> recurrenceWithFrequency(EKRecurrenceFrequency frequency,
                                                                   std::int64_t interval,
                                                                   std::shared_ptr<EKRecurrenceEnd> end);
  static std::shared_ptr<EKRecurrenceRule> recurrenceWithFrequency(
      EKRecurrenceFrequency frequency, std::int64_t interval,
      std::optional<std::vector<std::shared_ptr<EKRecurrenceDayOfWeek>>> daysOfTheWeek, NumberList daysOfTheMonth,
      NumberList monthsOfTheYear, NumberList weeksOfTheYear, NumberList daysOfTheYear, NumberList setPositions,
      std::shared_ptr<EKRecurrenceEnd> end);

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

// What makes `rule` one that no calendar can keep, said for a person: an unknown frequency, an
// interval outside 1 to 100000, a weekday, week, day, month or position out of range, a number
// list holding something other than whole numbers, an end that names neither a date nor a count.
// None for a rule RFC 5545 allows.
std::optional<std::string> recurrenceRuleProblem(const EKRecurrenceRule& rule);

}  // namespace vesp::platform
