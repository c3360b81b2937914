#include "Vesp/VespReminderPriority.h"

namespace vesp {

VespReminderPriority vespReminderPriority(std::int64_t priority) {
  switch (priority) {
    case 0: return VespReminderPriority::none;
    case 1: return VespReminderPriority::high;
    case 2: return VespReminderPriority::high;
    case 3: return VespReminderPriority::high;
    case 4: return VespReminderPriority::high;
    case 5: return VespReminderPriority::medium;
    case 6: return VespReminderPriority::low;
    case 7: return VespReminderPriority::low;
    case 8: return VespReminderPriority::low;
    case 9: return VespReminderPriority::low;
    default: return VespReminderPriority::none;
  }
}

std::string_view description(VespReminderPriority value) {
  switch (value) {
    case VespReminderPriority::none: return "none";
    case VespReminderPriority::high: return "high";
    case VespReminderPriority::medium: return "medium";
    case VespReminderPriority::low: return "low";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespReminderPriority value) { return out << description(value); }

}  // namespace vesp
