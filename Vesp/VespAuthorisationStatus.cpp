#include "Vesp/VespAuthorisationStatus.h"

namespace vesp {

std::string_view description(VespAuthorisationStatus status) {
  switch (status) {
    case VespAuthorisationStatus::unknown: return "unknown";
    case VespAuthorisationStatus::notDetermined: return "notDetermined";
    case VespAuthorisationStatus::restricted: return "restricted";
    case VespAuthorisationStatus::denied: return "denied";
    case VespAuthorisationStatus::authorised: return "authorised";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, VespAuthorisationStatus status) { return out << description(status); }

}  // namespace vesp
