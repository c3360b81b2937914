// A participant's role in an item.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespParticipantRole { unknown, required, optional, chair, nonParticipant };

// The total conversion from the platform's number; every value not in the table gives unknown.
VespParticipantRole vespParticipantRole(platform::EKParticipantRole value);

std::string_view description(VespParticipantRole value);
std::ostream& operator<<(std::ostream& out, VespParticipantRole value);

}  // namespace vesp
