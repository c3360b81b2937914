#include "Vesp/VespParticipantType.h"

namespace vesp {

VespParticipantType vespParticipantType(platform::EKParticipantType value) {
  switch (value) {
    case platform::EKParticipantTypeUnknown: return VespParticipantType::unknown;
    case platform::EKParticipantTypePerson: return VespParticipantType::person;
    case platform::EKParticipantTypeRoom: return VespParticipantType::room;
    case platform::EKParticipantTypeResource: return VespParticipantType::resource;
    case platform::EKParticipantTypeGroup: return VespParticipantType::group;
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
