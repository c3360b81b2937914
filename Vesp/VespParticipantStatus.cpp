#include "Vesp/VespParticipantStatus.h"

namespace vesp {

VespParticipantStatus vespParticipantStatus(platform::EKParticipantStatus value) {
  switch (value) {
    case 0: return VespParticipantStatus::unknown;
    case 1: return VespParticipantStatus::pending;
    case 2: return VespParticipantStatus::accepted;
    case 3: return VespParticipantStatus::declined;
    case 4: return VespParticipantStatus::tentative;
    case 5: return VespParticipantStatus::delegated;
    case 6: return VespParticipantStatus::completed;
    case 7: return VespParticipantStatus::inProcess;
    default: return VespParticipantStatus::unknown;
  }
}

std::string_view description(VespParticipantStatus value) {
  switch (value) {
    case VespParticipantStatus::unknown: return "unknown";
    case VespParticipantStatus::pending: return "pending";
    case VespParticipantStatus::accepted: return "accepted";
    case VespParticipantStatus::declined: return "declined";
    case VespParticipantStatus::tentative: return "tentative";
    case VespParticipantStatus::delegated: return "delegated";
    case VespParticipantStatus::completed: return "completed";
    case VespParticipantStatus::inProcess: return "inProcess";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespParticipantStatus value) { return out << description(value); }

}  // namespace vesp
