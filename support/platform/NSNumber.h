// A platform number: a Boolean, a signed or unsigned integer or a floating-point number, readable
// as any of them.
#pragma once

#include <cstdint>
#include <ostream>
#include <variant>

namespace vesp::platform {

class NSNumber {
 public:
  explicit NSNumber(bool value) : value_(value) {}
  explicit NSNumber(int value) : value_(static_cast<std::int64_t>(value)) {}
  explicit NSNumber(long value) : value_(static_cast<std::int64_t>(value)) {}
  explicit NSNumber(long long value) : value_(static_cast<std::int64_t>(value)) {}
  explicit NSNumber(unsigned value) : value_(static_cast<std::uint64_t>(value)) {}
  explicit NSNumber(unsigned long value) : value_(static_cast<std::uint64_t>(value)) {}
  explicit NSNumber(unsigned long long value) : value_(static_cast<std::uint64_t>(value)) {}
  explicit NSNumber(double value) : value_(value) {}

  double doubleValue() const;
  // The value as a signed integer; a floating-point number is truncated (saturating at the ends).
  std::int64_t integerValue() const;
  // The value as an unsigned 64-bit integer: a negative integer wraps to its two's complement
  // (-1 gives 18446744073709551615).
  std::uint64_t unsignedIntegerValue() const;
  bool boolValue() const { return integerValue() != 0 || doubleValue() != 0.0; }
  bool isFloatingPoint() const { return std::holds_alternative<double>(value_); }

  friend bool operator==(const NSNumber&, const NSNumber&) = default;

 private:
  std::variant<bool, std::int64_t, std::uint64_t, double> value_;
};

std::ostream& operator<<(std::ostream& out, const NSNumber& number);

}  // namespace vesp::platform
