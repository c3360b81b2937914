#include "Vesp/VespEventStatus.h"

namespace vesp {

VespEventStatus vespEventStatus(platform::EKEventStatus value) {
  switch (value) {
    case platform::EKEventStatusNone: return VespEventStatus::none;
    case platform::EKEventStatusConfirmed: return VespEventStatus::confirmed;
    case platform::EKEventStatusTentative: return VespEventStatus::tentative;
    case platform::EKEventStatusCanceled: return VespEventStatus::canceled;
    default: return VespEventStatus::none;
  }
}

std::string_view description(VespEventStatus value) {
  switch (value) {
    case VespEventStatus::none: return "none";
    case VespEventStatus::confirmed: return "confirmed";
    case VespEventStatus::tentative: return "tentative";
    case VespEventStatus::canceled: return "canceled";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespEventStatus value) { return out << description(value); }

}  // namespace vesp
