// Time-unit constants: the number of seconds in Gregorian units.
#pragma once

#include <cstdint>

namespace vesp::Gnom::SecondsIn::Gregorian {

struct Minute {
  static constexpr std::uint16_t count = 60;
};
struct Hour {
  static constexpr std::uint16_t count = 60 * Minute::count;
};
struct Day {
  static constexpr std::uint32_t count = 24u * Hour::count;
};
struct Week {
  static constexpr std::uint32_t count = 7u * Day::count;
};

}  // namespace vesp::Gnom::SecondsIn::Gregorian
