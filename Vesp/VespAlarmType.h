// How an alarm alerts. No record holds it; it is offered for hosts.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespAlarmType { display, audio, procedure, email };

// The total conversion from the platform's number; every value not in the table gives display.
VespAlarmType vespAlarmType(platform::EKAlarmType value);

std::string_view description(VespAlarmType value);
std::ostream& operator<<(std::ostream& out, VespAlarmType value);

}  // namespace vesp
