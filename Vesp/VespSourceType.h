// The kind of account a source is.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "support/platform/EKTypes.h"

namespace vesp {

enum class VespSourceType { local, exchange, calDAV, mobileMe, subscribed, birthdays };

// The total conversion from the platform's number; every value not in the table gives local.
VespSourceType vespSourceType(platform::EKSourceType value);

std::string_view description(VespSourceType value);
std::ostream& operator<<(std::ostream& out, VespSourceType value);

}  // namespace vesp
