// A participant's reply.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespParticipantStatus { unknown, pending, accepted, declined, tentative, delegated, completed, inProcess };

// The total conversion from the platform's number; every value not in the table gives unknown.
VespParticipantStatus vespParticipantStatus(platform::EKParticipantStatus value);

std::string_view description(VespParticipantStatus value);
std::ostream& operator<<(std::ostream& out, VespParticipantStatus value);

}  // namespace vesp
