// What kind of participant an attendee is.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespParticipantType { unknown, person, room, resource, group };

// The total conversion from the platform's number; every value not in the table gives unknown.
VespParticipantType vespParticipantType(platform::EKParticipantType value);

std::string_view description(VespParticipantType value);
std::ostream& operator<<(std::ostream& out, VespParticipantType value);

}  // namespace vesp
