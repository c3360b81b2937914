// The running state of an application-wide manager, kept by the manager framework.
#pragma once

#include <ostream>
#include <string_view>

namespace vesp::keel {

enum class KeelManagerRunningState { notSetUp, setUp, active, background, tornDown, failed };

std::string_view description(KeelManagerRunningState state);
std::ostream& operator<<(std::ostream& out, KeelManagerRunningState state);

}  // namespace vesp::keel
