#include "Vesp/VespSourceType.h"

namespace vesp {

VespSourceType vespSourceType(platform::EKSourceType value) {
  switch (value) {
    case platform::EKSourceTypeLocal: return VespSourceType::local;
    case platform::EKSourceTypeExchange: return VespSourceType::exchange;
    case platform::EKSourceTypeCalDAV: return VespSourceType::calDAV;
    case platform::EKSourceTypeMobileMe: return VespSourceType::mobileMe;
    case platform::EKSourceTypeSubscribed: return VespSourceType::subscribed;
    case platform::EKSourceTypeBirthdays: return VespSourceType::birthdays;
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
