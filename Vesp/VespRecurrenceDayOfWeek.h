// A day of the week within a recurrence rule, with its week number (0 every week; positive from
// the start of the period, negative from its end).
#pragma once

#include <cstdint>
#include <ostream>

#include "Vesp/VespWeekday.h"
#include "support/platform/EKRecurrenceRule.h"

namespace vesp {

class VespRecurrenceDayOfWeek {
 public:
  VespRecurrenceDayOfWeek(VespWeekday dayOfTheWeek, std::int64_t weekNumber);
  // Reads dayOfTheWeek (a value outside 1-7 stops the process) and weekNumber, in order.
  explicit VespRecurrenceDayOfWeek(const platform::EKRecurrenceDayOfWeek& day);

  VespWeekday dayOfTheWeek() const { return dayOfTheWeek_; }
  std::int64_t weekNumber() const { return weekNumber_; }

  friend bool operator==(const VespRecurrenceDayOfWeek&, const VespRecurrenceDayOfWeek&) = default;

 private:
  VespWeekday dayOfTheWeek_;
  std::int64_t weekNumber_;
};

std::ostream& operator<<(std::ostream& out, const VespRecurrenceDayOfWeek& day);

}  // namespace vesp
