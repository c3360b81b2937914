#include "support/keel/KeelManagerRunningState.h"

namespace vesp::keel {

std::string_view description(KeelManagerRunningState state) {
  switch (state) {
    case KeelManagerRunningState::notSetUp: return "notSetUp";
    case KeelManagerRunningState::setUp: return "setUp";
    case KeelManagerRunningState::active: return "active";
    case KeelManagerRunningState::background: return "background";
    case KeelManagerRunningState::tornDown: return "tornDown";
    case KeelManagerRunningState::failed: return "failed";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& out, KeelManagerRunningState state) { return out << description(state); }

}  // namespace vesp::keel
