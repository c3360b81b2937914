#include "Vesp/VespEventAvailability.h"

namespace vesp {

VespEventAvailability vespEventAvailability(platform::EKEventAvailability value) {
  switch (value) {
    case -1: return VespEventAvailability::notSupported;
    case 0: return VespEventAvailability::busy;
    case 1: return VespEventAvailability::free;
    case 2: return VespEventAvailability::tentative;
    case 3: return VespEventAvailability::unavailable;
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
