// When a recurrence stops: at a date, or after a number of occurrences.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>

#include "support/platform/Date.h"
#include "support/platform/EKRecurrenceRule.h"

namespace vesp {

class VespRecurrenceEnd {
 public:
  VespRecurrenceEnd(std::optional<platform::Date> endDate, std::int64_t occurrenceCount);
  // Reads endDate and occurrenceCount, in order.
  explicit VespRecurrenceEnd(const platform::EKRecurrenceEnd& end);

  const std::optional<platform::Date>& endDate() const { return endDate_; }
  std::int64_t occurrenceCount() const { return occurrenceCount_; }

  friend bool operator==(const VespRecurrenceEnd&, const VespRecurrenceEnd&) = default;

 private:
  std::optional<platform::Date> endDate_;
  std::int64_t occurrenceCount_;
};

std::ostream& operator<<(std::ostream& out, const VespRecurrenceEnd& end);

}  // namespace vesp
