// An account that calendars belong to.
#pragma once

#include <string>

#include "support/platform/EKTypes.h"
#include "support/platform/NSObject.h"

namespace vesp::platform {

class EKSource : public NSObject {
 public:
  virtual std::string sourceIdentifier() const = 0;
  virtual EKSourceType sourceType() const = 0;
  virtual std::string title() const = 0;
};

}  // namespace vesp::platform
