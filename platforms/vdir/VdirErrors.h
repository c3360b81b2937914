// The vdir platform's own errors: one domain, and a code for each kind of failure a host may want
// to tell apart. The codes are part of the platform's interface: they never change meaning.
#pragma once

#include <cstdint>
#include <string>

#include "support/platform/NSError.h"
#include "support/rivet/RivetError.h"

namespace vesp::vdir {

inline const std::string VdirErrorDomain = "VespVdirErrorDomain";

enum class VdirErrorCode : std::int64_t {
  // Asking for access.
  storeUnreadable = 1,     // the store root exists but cannot be read
  noConsentHandler = 2,    // nobody can be asked
  consentNotRecorded = 3,  // the answer could not be kept
  // Writing.
  readOnlyCalendar = 10,  // the collection's directory is not writable
  noCalendar = 11,        // no such collection (or none given)
  endBeforeStart = 12,
  unknownTimeZone = 13,
  changedOnDisk = 14,  // another program changed the file since it was read: nothing was written
  notReadWhole = 15,   // the file was repaired or partly skipped on reading: writing it back would lose that
  ioFailure = 16,
  noSuchItem = 17,     // the item is no longer in the store
  invalidChange = 18,  // any other change the file cannot take
};

inline platform::NSError vdirError(VdirErrorCode code, std::string description) {
  return platform::NSError(VdirErrorDomain, static_cast<std::int64_t>(code), std::move(description));
}

// A failure of `file`'s `function` that carries its code, for the platform's own code paths.
inline rivet::RivetError vdirFailure(VdirErrorCode code, std::string message, const char* file, const char* function,
                                     std::uint64_t line) {
  auto error = vdirError(code, message);
  return rivet::RivetError(std::move(message), std::nullopt, file, function, line, std::move(error));
}

}  // namespace vesp::vdir
