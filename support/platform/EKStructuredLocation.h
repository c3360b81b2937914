// A place with optional coordinates, a radius and a title.
#pragma once

#include <optional>
#include <string>

#include "support/platform/CLLocation.h"
#include "support/platform/NSObject.h"

namespace vesp::platform {

class EKStructuredLocation : public NSObject {
 public:
  virtual std::optional<CLLocation> geoLocation() const = 0;
  virtual double radius() const = 0;
  virtual std::optional<std::string> title() const = 0;
};

}  // namespace vesp::platform
