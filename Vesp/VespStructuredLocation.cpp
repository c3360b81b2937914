#include "Vesp/VespStructuredLocation.h"

namespace vesp {

VespStructuredLocation::VespStructuredLocation(std::optional<plat::PlatLocation> geoLocation, double radius,
                                               std::optional<std::string> title)
    : geoLocation_(std::move(geoLocation)), radius_(radius), title_(std::move(title)) {}

namespace {
std::optional<plat::PlatLocation> copyLocation(const std::optional<platform::CLLocation>& location) {
  if (!location) return std::nullopt;
  return plat::PlatLocation(*location);
}
}  // namespace

VespStructuredLocation::VespStructuredLocation(const platform::EKStructuredLocation& location)
    : geoLocation_(copyLocation(location.geoLocation())), radius_(location.radius()), title_(location.title()) {}

std::ostream& operator<<(std::ostream& out, const VespStructuredLocation& location) {
  out << "VespStructuredLocation(" << (location.title_ ? "\"" + *location.title_ + "\"" : "nil") << ", radius "
      << location.radius_;
  if (location.geoLocation_) out << ", " << *location.geoLocation_;
  return out << ")";
}

}  // namespace vesp
