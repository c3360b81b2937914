#include "Vesp/VespSourceType.h"

namespace vesp {

VespSourceType vespSourceType(platform::EKSourceType value) {
  switch (value) {
    case 0: return VespSourceType::local;
    case 1: return VespSourceType::exchange;
    case 2: return VespSourceType::calDAV;
    case 3: return VespSourceType::mobileMe;
    case 4: return VespSourceType::subscribed;
    case 5: return VespSourceType::birthdays;
    default: return VespSourceType::local;
  }
}

std::string_view description(VespSourceType value) {
  switch (value) {
    case VespSourceType::local: return "local";
    case VespSourceType::exchange: return "exchange";
    case VespSourceType::calDAV: return "calDAV";
    case VespSourceType::mobileMe: return "mobileMe";
    case VespSourceType::subscribed: return "subscribed";
    case VespSourceType::birthdays: return "birthdays";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespSourceType value) { return out << description(value); }

}  // namespace vesp
