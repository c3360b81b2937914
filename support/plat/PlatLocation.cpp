#include "support/plat/PlatLocation.h"

namespace vesp::plat {

PlatLocation::PlatLocation(double latitude, double longitude, double altitude, double horizontalAccuracy,
                           double verticalAccuracy, platform::Date timestamp)
    : latitude_(latitude),
      longitude_(longitude),
      altitude_(altitude),
      horizontalAccuracy_(horizontalAccuracy),
      verticalAccuracy_(verticalAccuracy),
      timestamp_(timestamp) {}

PlatLocation::PlatLocation(const platform::CLLocation& location)
    : PlatLocation(location.latitude(), location.longitude(), location.altitude(), location.horizontalAccuracy(),
                   location.verticalAccuracy(), location.timestamp()) {}

std::ostream& operator<<(std::ostream& out, const PlatLocation& location) {
  return out << "PlatLocation(" << location.latitude() << ", " << location.longitude() << ", alt "
             << location.altitude() << ")";
}

}  // namespace vesp::plat
