#include "Vesp/VespParticipantType.h"

namespace vesp {

VespParticipantType vespParticipantType(platform::EKParticipantType value) {
  switch (value) {
    case 0: return VespParticipantType::unknown;
    case 1: return VespParticipantType::person;
    case 2: return VespParticipantType::room;
    case 3: return VespParticipantType::resource;
    case 4: return VespParticipantType::group;
    default: return VespParticipantType::unknown;
  }
}

std::string_view description(VespParticipantType value) {
  switch (value) {
    case VespParticipantType::unknown: return "unknown";
    case VespParticipantType::person: return "person";
    case VespParticipantType::room: return "room";
    case VespParticipantType::resource: return "resource";
    case VespParticipantType::group: return "group";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespParticipantType value) { return out << description(value); }

}  // namespace vesp
