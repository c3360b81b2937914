// A recurrence rule, copied from the platform's rule. The library copies rules and never evaluates
// them. Number lists are unsigned by design: a negative platform entry (-1, the last) is kept as
// its 64-bit two's complement (18446744073709551615).
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Vesp/VespRecurrenceDayOfWeek.h"
#include "Vesp/VespRecurrenceEnd.h"
#include "Vesp/VespRecurrenceFrequency.h"
#include "support/platform/EKRecurrenceRule.h"

namespace vesp {

class VespRecurrenceRule {
 public:
  using NumberList = std::optional<std::vector<std::uint64_t>>;

  VespRecurrenceRule(std::string calendarIdentifier, NumberList daysOfTheMonth,
                     std::optional<std::vector<VespRecurrenceDayOfWeek>> daysOfTheWeek, NumberList daysOfTheYear,
                     std::int64_t firstDayOfTheWeek, VespRecurrenceFrequency frequency, std::int64_t interval,
                     NumberList monthsOfTheYear, std::optional<VespRecurrenceEnd> recurrenceEnd,
                     NumberList setPositions, NumberList weeksOfTheYear);
  // Reads the attributes in field order, filling each field before reading the next. An element
  // of a number list that is not a platform number stops the process (type mismatch), as does a
  // weekday outside 1-7.
  explicit VespRecurrenceRule(const platform::EKRecurrenceRule& rule);

  const std::string& calendarIdentifier() const { return calendarIdentifier_; }
  const NumberList& daysOfTheMonth() const { return daysOfTheMonth_; }
  const std::optional<std::vector<VespRecurrenceDayOfWeek>>& daysOfTheWeek() const { return daysOfTheWeek_; }
  const NumberList& daysOfTheYear() const { return daysOfTheYear_; }
  std::int64_t firstDayOfTheWeek() const { return firstDayOfTheWeek_; }
  VespRecurrenceFrequency frequency() const { return frequency_; }
  std::int64_t interval() const { return interval_; }
  const NumberList& monthsOfTheYear() const { return monthsOfTheYear_; }
  const std::optional<VespRecurrenceEnd>& recurrenceEnd() const { return recurrenceEnd_; }
  const NumberList& setPositions() const { return setPositions_; }
  const NumberList& weeksOfTheYear() const { return weeksOfTheYear_; }

  friend bool operator==(const VespRecurrenceRule&, const VespRecurrenceRule&) = default;

 private:
  std::string calendarIdentifier_;
  NumberList daysOfTheMonth_;
  std::optional<std::vector<VespRecurrenceDayOfWeek>> daysOfTheWeek_;
  NumberList daysOfTheYear_;
  std::int64_t firstDayOfTheWeek_;
  VespRecurrenceFrequency frequency_;
  std::int64_t interval_;
  NumberList monthsOfTheYear_;
  std::optional<VespRecurrenceEnd> recurrenceEnd_;
  NumberList setPositions_;
  NumberList weeksOfTheYear_;
};

std::ostream& operator<<(std::ostream& out, const VespRecurrenceRule& rule);

}  // namespace vesp
