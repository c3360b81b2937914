#include "Vesp/VespEventAvailability.h"

namespace vesp {

VespEventAvailability vespEventAvailability(platform::EKEventAvailability value) {
  switch (value) {
    case platform::EKEventAvailabilityNotSupported: return VespEventAvailability::notSupported;
    case platform::EKEventAvailabilityBusy: return VespEventAvailability::busy;
    case platform::EKEventAvailabilityFree: return VespEventAvailability::free;
    case platform::EKEventAvailabilityTentative: return VespEventAvailability::tentative;
    case platform::EKEventAvailabilityUnavailable: return VespEventAvailability::unavailable;
    default: return VespEventAvailability::busy;
  }
}

std::string_view description(VespEventAvailability value) {
  switch (value) {
    case VespEventAvailability::notSupported: return "notSupported";
    case VespEventAvailability::busy: return "busy";
    case VespEventAvailability::free: return "free";
    case VespEventAvailability::tentative: return "tentative";
    case VespEventAvailability::unavailable: return "unavailable";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespEventAvailability value) { return out << description(value); }

}  // namespace vesp
