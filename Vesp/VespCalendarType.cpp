#include "Vesp/VespCalendarType.h"

namespace vesp {

VespCalendarType vespCalendarType(platform::EKCalendarType value) {
  switch (value) {
    case 0: return VespCalendarType::local;
    case 1: return VespCalendarType::calDAV;
    case 2: return VespCalendarType::exchange;
    case 3: return VespCalendarType::subscription;
    case 4: return VespCalendarType::birthday;
    default: return VespCalendarType::local;
  }
}

std::string_view description(VespCalendarType value) {
  switch (value) {
    case VespCalendarType::birthday: return "birthday";
    case VespCalendarType::calDAV: return "calDAV";
    case VespCalendarType::exchange: return "exchange";
    case VespCalendarType::local: return "local";
    case VespCalendarType::subscription: return "subscription";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespCalendarType value) { return out << description(value); }

}  // namespace vesp
