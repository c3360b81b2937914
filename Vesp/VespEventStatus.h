// The confirmation state of an event.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespEventStatus { none, confirmed, tentative, canceled };

// The total conversion from the platform's number; every value not in the table gives none.
VespEventStatus vespEventStatus(platform::EKEventStatus value);

std::string_view description(VespEventStatus value);
std::ostream& operator<<(std::ostream& out, VespEventStatus value);

}  // namespace vesp
