// A day of the week. The conversion has no fallback: the platform defines no other weekdays, and
// a value outside 1-7 is a broken contract that stops the process.
#pragma once

#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespWeekday { sunday, monday, tuesday, wednesday, thursday, friday, saturday };

// 1 gives sunday ... 7 gives saturday. Any other value stops the process with a diagnostic
// naming EKWeekday and the raw value.
VespWeekday vespWeekday(platform::EKWeekday weekday);

std::string_view description(VespWeekday value);
std::ostream& operator<<(std::ostream& out, VespWeekday value);

}  // namespace vesp
