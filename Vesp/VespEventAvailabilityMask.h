// Which availability values a calendar's events accept: busy (1), free (2), tentative (4),
// unavailable (8).
#pragma once

#include <ostream>

#include "Vesp/VespOptionSet.h"
#include "support/platform/EKTypes.h"

namespace vesp {

class VespEventAvailabilityMask : public VespOptionSet<VespEventAvailabilityMask> {
 public:
  using VespOptionSet::VespOptionSet;
  // The platform's bits, copied unchanged.
  static constexpr VespEventAvailabilityMask fromPlatform(platform::EKCalendarEventAvailabilityMask mask) {
    return VespEventAvailabilityMask(mask);
  }

  static const VespEventAvailabilityMask busy;
  static const VespEventAvailabilityMask free;
  static const VespEventAvailabilityMask tentative;
  static const VespEventAvailabilityMask unavailable;

  friend constexpr bool operator==(const VespEventAvailabilityMask&, const VespEventAvailabilityMask&) = default;
};

inline constexpr VespEventAvailabilityMask VespEventAvailabilityMask::busy{std::uint64_t{1}};
inline constexpr VespEventAvailabilityMask VespEventAvailabilityMask::free{std::uint64_t{2}};
inline constexpr VespEventAvailabilityMask VespEventAvailabilityMask::tentative{std::uint64_t{4}};
inline constexpr VespEventAvailabilityMask VespEventAvailabilityMask::unavailable{std::uint64_t{8}};

std::ostream& operator<<(std::ostream& out, const VespEventAvailabilityMask& mask);

}  // namespace vesp
