// Which kinds of items a calendar holds: events (1) and reminders (2).
#pragma once

#include <ostream>

#include "Vesp/VespOptionSet.h"
#include "support/platform/EKTypes.h"

namespace vesp {

class VespEntityMask : public VespOptionSet<VespEntityMask> {
 public:
  using VespOptionSet::VespOptionSet;
  // The platform's bits, copied unchanged.
  static constexpr VespEntityMask fromPlatform(platform::EKEntityMask mask) { return VespEntityMask(mask); }

  static const VespEntityMask event;
  static const VespEntityMask reminder;

  friend constexpr bool operator==(const VespEntityMask&, const VespEntityMask&) = default;
};

inline constexpr VespEntityMask VespEntityMask::event{std::uint64_t{1}};
inline constexpr VespEntityMask VespEntityMask::reminder{std::uint64_t{2}};

std::ostream& operator<<(std::ostream& out, const VespEntityMask& mask);

}  // namespace vesp
