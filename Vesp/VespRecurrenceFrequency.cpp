#include "Vesp/VespRecurrenceFrequency.h"

namespace vesp {

VespRecurrenceFrequency vespRecurrenceFrequency(platform::EKRecurrenceFrequency value) {
  switch (value) {
    case platform::EKRecurrenceFrequencyDaily: return VespRecurrenceFrequency::daily;
    case platform::EKRecurrenceFrequencyWeekly: return VespRecurrenceFrequency::weekly;
    case platform::EKRecurrenceFrequencyMonthly: return VespRecurrenceFrequency::monthly;
    case platform::EKRecurrenceFrequencyYearly: return VespRecurrenceFrequency::yearly;
    default: return VespRecurrenceFrequency::daily;
  }
}

std::string_view description(VespRecurrenceFrequency value) {
  switch (value) {
    case VespRecurrenceFrequency::daily: return "daily";
    case VespRecurrenceFrequency::weekly: return "weekly";
    case VespRecurrenceFrequency::monthly: return "monthly";
    case VespRecurrenceFrequency::yearly: return "yearly";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespRecurrenceFrequency value) { return out << description(value); }

}  // namespace vesp
