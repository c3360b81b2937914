// Stopping the process on a broken invariant.
#pragma once

#include <string_view>

namespace vesp::rivet {

// Prints "Fatal error: <message>" to stderr and aborts. Used where the platform breaks a contract
// that the library relies on; never returns, in every build mode.
[[noreturn]] void fatalError(std::string_view message);

}  // namespace vesp::rivet
