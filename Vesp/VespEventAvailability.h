// How an event shows its owner's time. Unknown platform values give busy, not notSupported.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespEventAvailability { notSupported, busy, free, tentative, unavailable };

// The total conversion from the platform's number; every value not in the table gives busy.
VespEventAvailability vespEventAvailability(platform::EKEventAvailability value);

std::string_view description(VespEventAvailability value);
std::ostream& operator<<(std::ostream& out, VespEventAvailability value);

}  // namespace vesp
