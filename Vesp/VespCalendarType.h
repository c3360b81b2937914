// The kind of calendar. Cases are alphabetical, not in the platform's order, so the conversion is a
// true table lookup.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespCalendarType { birthday, calDAV, exchange, local, subscription };

// The total conversion from the platform's number; every value not in the table gives local.
VespCalendarType vespCalendarType(platform::EKCalendarType value);

std::string_view description(VespCalendarType value);
std::ostream& operator<<(std::ostream& out, VespCalendarType value);

}  // namespace vesp
