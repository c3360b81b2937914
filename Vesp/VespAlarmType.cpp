#include "Vesp/VespAlarmType.h"

namespace vesp {

VespAlarmType vespAlarmType(platform::EKAlarmType value) {
  switch (value) {
    case 0: return VespAlarmType::display;
    case 1: return VespAlarmType::audio;
    case 2: return VespAlarmType::procedure;
    case 3: return VespAlarmType::email;
    default: return VespAlarmType::display;
  }
}

std::string_view description(VespAlarmType value) {
  switch (value) {
    case VespAlarmType::display: return "display";
    case VespAlarmType::audio: return "audio";
    case VespAlarmType::procedure: return "procedure";
    case VespAlarmType::email: return "email";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespAlarmType value) { return out << description(value); }

}  // namespace vesp
