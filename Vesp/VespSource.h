// An account that calendars belong to, copied from the platform's source.
#pragma once

#include <ostream>
#include <string>

#include "Vesp/VespSourceType.h"
#include "support/platform/EKSource.h"

namespace vesp {

class VespSource {
 public:
  VespSource(std::string sourceIdentifier, VespSourceType sourceType, std::string title);
  // Reads sourceIdentifier, sourceType and title, in that order.
  explicit VespSource(const platform::EKSource& source);

  const std::string& sourceIdentifier() const { return sourceIdentifier_; }
  VespSourceType sourceType() const { return sourceType_; }
  const std::string& title() const { return title_; }

  friend bool operator==(const VespSource&, const VespSource&) = default;

 private:
  std::string sourceIdentifier_;
  VespSourceType sourceType_;
  std::string title_;
};

std::ostream& operator<<(std::ostream& out, const VespSource& source);

}  // namespace vesp
