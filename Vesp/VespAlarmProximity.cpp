#include "Vesp/VespAlarmProximity.h"

namespace vesp {

VespAlarmProximity vespAlarmProximity(platform::EKAlarmProximity value) {
  switch (value) {
    case platform::EKAlarmProximityNone: return VespAlarmProximity::none;
    case platform::EKAlarmProximityEnter: return VespAlarmProximity::enter;
    case platform::EKAlarmProximityLeave: return VespAlarmProximity::leave;
    default: return VespAlarmProximity::none;
  }
}

std::string_view description(VespAlarmProximity value) {
  switch (value) {
    case VespAlarmProximity::none: return "none";
    case VespAlarmProximity::enter: return "enter";
    case VespAlarmProximity::leave: return "leave";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespAlarmProximity value) { return out << description(value); }

}  // namespace vesp
