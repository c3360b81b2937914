#include "support/platform/NSNumber.h"

#include <cmath>
#include <limits>

namespace vesp::platform {

double NSNumber::doubleValue() const {
  return std::visit([](auto value) { return static_cast<double>(value); }, value_);
}

std::int64_t NSNumber::integerValue() const {
  if (auto d = std::get_if<double>(&value_)) {
    if (std::isnan(*d)) return 0;
    if (*d >= 9.2233720368547758e18) return std::numeric_limits<std::int64_t>::max();
    if (*d <= -9.2233720368547758e18) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(*d);
  }
  if (auto u = std::get_if<std::uint64_t>(&value_)) return static_cast<std::int64_t>(*u);
  if (auto b = std::get_if<bool>(&value_)) return *b ? 1 : 0;
  return std::get<std::int64_t>(value_);
}

std::uint64_t NSNumber::unsignedIntegerValue() const {
  if (auto u = std::get_if<std::uint64_t>(&value_)) return *u;
  if (auto d = std::get_if<double>(&value_)) {
    if (*d >= 0 && *d < 1.8446744073709552e19) return static_cast<std::uint64_t>(*d);
  }
  return static_cast<std::uint64_t>(integerValue());
}

std::ostream& operator<<(std::ostream& out, const NSNumber& number) {
  if (number.isFloatingPoint()) return out << number.doubleValue();
  return out << number.integerValue();
}

}  // namespace vesp::platform
