// Whether an alarm fires on entering or leaving its place.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespAlarmProximity { none, enter, leave };

// The total conversion from the platform's number; every value not in the table gives none.
VespAlarmProximity vespAlarmProximity(platform::EKAlarmProximity value);

std::string_view description(VespAlarmProximity value);
std::ostream& operator<<(std::ostream& out, VespAlarmProximity value);

}  // namespace vesp
