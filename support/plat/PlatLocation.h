// A geographic position, copied from the platform's CLLocation; a plain, comparable value.
#pragma once

#include <ostream>

#include "support/platform/CLLocation.h"
#include "support/platform/Date.h"

namespace vesp::plat {

class PlatLocation {
 public:
  PlatLocation(double latitude, double longitude, double altitude, double horizontalAccuracy,
               double verticalAccuracy, platform::Date timestamp);
  explicit PlatLocation(const platform::CLLocation& location);

  double latitude() const { return latitude_; }
  double longitude() const { return longitude_; }
  double altitude() const { return altitude_; }
  double horizontalAccuracy() const { return horizontalAccuracy_; }
  double verticalAccuracy() const { return verticalAccuracy_; }
  platform::Date timestamp() const { return timestamp_; }

  friend bool operator==(const PlatLocation&, const PlatLocation&) = default;

 private:
  double latitude_;
  double longitude_;
  double altitude_;
  double horizontalAccuracy_;
  double verticalAccuracy_;
  platform::Date timestamp_;
};

std::ostream& operator<<(std::ostream& out, const PlatLocation& location);

}  // namespace vesp::plat
