#include "Vesp/VespSource.h"

namespace vesp {

VespSource::VespSource(std::string sourceIdentifier, VespSourceType sourceType, std::string title)
    : sourceIdentifier_(std::move(sourceIdentifier)), sourceType_(sourceType), title_(std::move(title)) {}

VespSource::VespSource(const platform::EKSource& source)
    : sourceIdentifier_(source.sourceIdentifier()),
      sourceType_(vespSourceType(source.sourceType())),
      title_(source.title()) {}

std::ostream& operator<<(std::ostream& out, const VespSource& source) {
  return out << "VespSource(" << source.sourceIdentifier() << ", " << source.sourceType() << ", \"" << source.title()
             << "\")";
}

}  // namespace vesp
