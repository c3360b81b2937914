// The library's view of the user's permission for one entity type: the state of the manager's
// authorisation state machines. The platform's restricted status is folded into denied, so the
// machines never enter restricted; unknown is only the initial state.
#pragma once

#include <ostream>
#include <string_view>

#include "support/rivet/RivetStateMachine.h"

namespace vesp {

enum class VespAuthorisationStatus { unknown, notDetermined, restricted, denied, authorised };

std::string_view description(VespAuthorisationStatus status);
std::ostream& operator<<(std::ostream& out, VespAuthorisationStatus status);

}  // namespace vesp

// The state identifier writes "authorization" with a z, unlike the type; both are deliberate.
template <>
struct vesp::rivet::RivetStateIdentifier<vesp::VespAuthorisationStatus> {
  static std::string_view identifier() { return "com.ambrel.vesp.state.calendar-manager.authorization"; }
};
