// A reminder's priority level, from the platform's number 0-9 (1-4 high, 5 medium, 6-9 low).
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespReminderPriority { none, high, medium, low };

// The total conversion from the platform's number; every value not in the table gives none.
VespReminderPriority vespReminderPriority(std::int64_t priority);

std::string_view description(VespReminderPriority value);
std::ostream& operator<<(std::ostream& out, VespReminderPriority value);

}  // namespace vesp
