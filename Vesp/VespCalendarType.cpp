#include "Vesp/VespCalendarType.h"

namespace vesp {

VespCalendarType vespCalendarType(platform::EKCalendarType value) {
  switch (value) {
    case platform::EKCalendarTypeLocal: return VespCalendarType::local;
    case platform::EKCalendarTypeCalDAV: return VespCalendarType::calDAV;
    case platform::EKCalendarTypeExchange: return VespCalendarType::exchange;
    case platform::EKCalendarTypeSubscription: return VespCalendarType::subscription;
    case platform::EKCalendarTypeBirthday: return VespCalendarType::birthday;
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
