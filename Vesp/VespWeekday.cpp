#include "Vesp/VespWeekday.h"

#include <string>

#include "support/rivet/RivetFatal.h"

namespace vesp {

VespWeekday vespWeekday(platform::EKWeekday weekday) {
  if (weekday < platform::EKWeekdaySunday || weekday > platform::EKWeekdayLast)
    rivet::fatalError("Unexpected enumeration value: EKWeekday raw value " + std::to_string(weekday));
  return static_cast<VespWeekday>(weekday - platform::EKWeekdaySunday);
}

std::string_view description(VespWeekday value) {
  switch (value) {
    case VespWeekday::sunday: return "sunday";
    case VespWeekday::monday: return "monday";
    case VespWeekday::tuesday: return "tuesday";
    case VespWeekday::wednesday: return "wednesday";
    case VespWeekday::thursday: return "thursday";
    case VespWeekday::friday: return "friday";
    case VespWeekday::saturday: return "saturday";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespWeekday value) { return out << description(value); }

}  // namespace vesp
