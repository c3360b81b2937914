// A geographic position as the platform's location service reports it.
#pragma once

#include <ostream>

#include "support/platform/Date.h"

namespace vesp::platform {

class CLLocation {
 public:
  CLLocation(double latitude, double longitude, double altitude = 0.0, double horizontalAccuracy = 0.0,
             double verticalAccuracy = -1.0, Date timestamp = Date())
      : latitude_(latitude),
        longitude_(longitude),
        altitude_(altitude),
        horizontalAccuracy_(horizontalAccuracy),
        verticalAccuracy_(verticalAccuracy),
        timestamp_(timestamp) {}

  double latitude() const { return latitude_; }
  double longitude() const { return longitude_; }
  double altitude() const { return altitude_; }
  double horizontalAccuracy() const { return horizontalAccuracy_; }
  double verticalAccuracy() const { return verticalAccuracy_; }
  Date timestamp() const { return timestamp_; }

  friend bool operator==(const CLLocation&, const CLLocation&) = default;

 private:
  double latitude_, longitude_, altitude_, horizontalAccuracy_, verticalAccuracy_;
  Date timestamp_;
};

inline std::ostream& operator<<(std::ostream& out, const CLLocation& location) {
  return out << "CLLocation(" << location.latitude() << ", " << location.longitude() << ")";
}

}  // namespace vesp::platform
