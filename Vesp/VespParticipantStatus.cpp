#include "Vesp/VespParticipantStatus.h"

namespace vesp {

VespParticipantStatus vespParticipantStatus(platform::EKParticipantStatus value) {
  switch (value) {
    case platform::EKParticipantStatusUnknown: return VespParticipantStatus::unknown;
    case platform::EKParticipantStatusPending: return VespParticipantStatus::pending;
    case platform::EKParticipantStatusAccepted: return VespParticipantStatus::accepted;
    case platform::EKParticipantStatusDeclined: return VespParticipantStatus::declined;
    case platform::EKParticipantStatusTentative: return VespParticipantStatus::tentative;
    case platform::EKParticipantStatusDelegated: return VespParticipantStatus::delegated;
    case platform::EKParticipantStatusCompleted: return VespParticipantStatus::completed;
    case platform::EKParticipantStatusInProcess: return VespParticipantStatus::inProcess;
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
