// A titled place with optional coordinates and a radius. The coordinates are kept inside the
// library (no accessor) yet take part in equality.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "support/plat/PlatLocation.h"
#include "support/platform/EKStructuredLocation.h"

namespace vesp {

class VespStructuredLocation {
 public:
  VespStructuredLocation(std::optional<plat::PlatLocation> geoLocation, double radius, std::optional<std::string> title);
  // Reads geoLocation, radius and title, in order.
  explicit VespStructuredLocation(const platform::EKStructuredLocation& location);

  double radius() const { return radius_; }
  const std::optional<std::string>& title() const { return title_; }

  friend bool operator==(const VespStructuredLocation&, const VespStructuredLocation&) = default;
  friend std::ostream& operator<<(std::ostream& out, const VespStructuredLocation& location);

 private:
  std::optional<plat::PlatLocation> geoLocation_;
  double radius_;
  std::optional<std::string> title_;
};

}  // namespace vesp
