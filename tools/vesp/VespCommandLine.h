// The vesp program: the calendar manager over a vdir store, from the command line.
#pragma once

#include <ostream>

namespace vesp::tool {

// Exit statuses.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;       // the store or the library failed
inline constexpr int kExitUsage = 2;         // bad arguments (options, dates, identifiers) or configuration
inline constexpr int kExitNoAccess = 3;      // access not granted
inline constexpr int kExitNoStore = 4;       // no store at the given path
inline constexpr int kExitNotFound = 5;      // no such event, occurrence or reminder
inline constexpr int kExitConflict = 6;      // another program changed the file meanwhile: nothing was written
inline constexpr int kExitReadOnly = 7;      // the calendar, or a file that was not read whole, cannot be written

// Runs the program with its arguments; prints results on `out` and messages on `err`.
int runVesp(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace vesp::tool
