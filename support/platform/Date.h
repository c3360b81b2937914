// An absolute instant, held as seconds since 2001-01-01 00:00:00 UTC (the reference date).
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>

namespace vesp::platform {

class Date {
 public:
  // Seconds between 1970-01-01 and the reference date.
  static constexpr double timeIntervalBetween1970AndReferenceDate = 978307200.0;

  // The reference date itself.
  constexpr Date() = default;
  constexpr explicit Date(double timeIntervalSinceReferenceDate) : seconds_(timeIntervalSinceReferenceDate) {}
  static constexpr Date fromTimeIntervalSince1970(double seconds) {
    return Date(seconds - timeIntervalBetween1970AndReferenceDate);
  }
  static Date now();

  constexpr double timeIntervalSinceReferenceDate() const { return seconds_; }
  constexpr double timeIntervalSince1970() const { return seconds_ + timeIntervalBetween1970AndReferenceDate; }
  constexpr double timeIntervalSince(Date other) const { return seconds_ - other.seconds_; }
  constexpr Date addingTimeInterval(double seconds) const { return Date(seconds_ + seconds); }

  // ISO 8601 in UTC, with the fraction of a second when there is one: 2026-11-22T08:00:00Z.
  std::string iso8601() const;

  // Compared by the number of seconds: 0.0 and -0.0 are the same instant.
  friend constexpr bool operator==(Date lhs, Date rhs) { return lhs.seconds_ == rhs.seconds_; }
  friend constexpr std::partial_ordering operator<=>(Date lhs, Date rhs) { return lhs.seconds_ <=> rhs.seconds_; }

 private:
  double seconds_ = 0.0;
};

std::ostream& operator<<(std::ostream& out, Date date);

}  // namespace vesp::platform

template <>
struct std::hash<vesp::platform::Date> {
  std::size_t operator()(vesp::platform::Date date) const noexcept {
    double seconds = date.timeIntervalSinceReferenceDate();
    return std::hash<double>{}(seconds == 0.0 ? 0.0 : seconds);
  }
};
