#include "Vesp/VespAlarmType.h"

namespace vesp {

VespAlarmType vespAlarmType(platform::EKAlarmType value) {
  switch (value) {
    case platform::EKAlarmTypeDisplay: return VespAlarmType::display;
    case platform::EKAlarmTypeAudio: return VespAlarmType::audio;
    case platform::EKAlarmTypeProcedure: return VespAlarmType::procedure;
    case platform::EKAlarmTypeEmail: return VespAlarmType::email;
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
