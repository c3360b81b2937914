#include "support/platform/NSObject.h"

#include <cstdio>
#include <typeinfo>

namespace vesp::platform {

std::string NSObject::description() const {
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
  return std::string("<object ") + address + ">";
}

}  // namespace vesp::platform
