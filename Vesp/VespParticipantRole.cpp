#include "Vesp/VespParticipantRole.h"

namespace vesp {

VespParticipantRole vespParticipantRole(platform::EKParticipantRole value) {
  switch (value) {
    case platform::EKParticipantRoleUnknown: return VespParticipantRole::unknown;
    case platform::EKParticipantRoleRequired: return VespParticipantRole::required;
    case platform::EKParticipantRoleOptional: return VespParticipantRole::optional;
    case platform::EKParticipantRoleChair: return VespParticipantRole::chair;
    case platform::EKParticipantRoleNonParticipant: return VespParticipantRole::nonParticipant;
    default: return VespParticipantRole::unknown;
  }
}

std::string_view description(VespParticipantRole value) {
  switch (value) {
    case VespParticipantRole::unknown: return "unknown";
    case VespParticipantRole::required: return "required";
    case VespParticipantRole::optional: return "optional";
    case VespParticipantRole::chair: return "chair";
    case VespParticipantRole::nonParticipant: return "nonParticipant";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespParticipantRole value) { return out << description(value); }

}  // namespace vesp
