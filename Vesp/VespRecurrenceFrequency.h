// The basic period of a recurrence rule.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespRecurrenceFrequency { daily, weekly, monthly, yearly };

// The total conversion from the platform's number; every value not in the table gives daily.
VespRecurrenceFrequency vespRecurrenceFrequency(platform::EKRecurrenceFrequency value);

std::string_view description(VespRecurrenceFrequency value);
std::ostream& operator<<(std::ostream& out, VespRecurrenceFrequency value);

}  // namespace vesp
