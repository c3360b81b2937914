#include "Vesp/VespParticipantRole.h"

namespace vesp {

VespParticipantRole vespParticipantRole(platform::EKParticipantRole value) {
  switch (value) {
    case 0: return VespParticipantRole::unknown;
    case 1: return VespParticipantRole::required;
    case 2: return VespParticipantRole::optional;
    case 3: return VespParticipantRole::chair;
    case 4: return VespParticipantRole::nonParticipant;
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
