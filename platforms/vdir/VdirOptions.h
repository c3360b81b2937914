// What a host gives the vdir platform and reads back from it: the store's options and limits, the
// state of its persistent cache and the problems found in the data. Free of libical.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/platform/EKTypes.h"

namespace vesp::vdir {

// Asks the user whether the host may read events or reminders, showing the host's usage
// description; true means yes. Called on a platform thread, one question at a time.
using VdirConsentHandler =
    std::function<bool(platform::EKEntityType entityType, const std::optional<std::string>& usageDescription)>;

// One problem found in the store: what was skipped or repaired, where, and why.
struct VdirDiagnostic {
  enum class Action { skipped, repaired, truncated };
  std::string path;  // relative to the store root
  Action action = Action::skipped;
  std::string problem;
  friend bool operator==(const VdirDiagnostic&, const VdirDiagnostic&) = default;
};
const char* description(VdirDiagnostic::Action action);

// Bounds on the work of one query, so that no series (FREQ=SECONDLY without end, a rule that
// matches almost nothing, DTSTART in year 1) can hang a query or exhaust memory. What a limit cuts
// short is reported, never dropped silently.
struct VdirExpansionLimits {
  std::size_t maximumOccurrencesPerSeries = 100000;
  std::size_t maximumIteratorStepsPerSeries = 1000000;
  double maximumSecondsPerSeries = 2.0;
  // Past this many, a query answers whole series by their first start until it is met (VdirQueries).
  std::size_t maximumOccurrencesPerQuery = 1000000;
  double maximumSecondsPerQuery = 10.0;
};

// After a store writes its cache, the cache directory is pruned: caches of roots that are gone,
// caches no version of this format can read, and temporary files older than an hour are removed;
// then, newest first, caches beyond `caches` files or `bytes` in all (each counted with the
// expansions kept beside it; the store's own counted, and never removed).
struct VdirCacheDirectoryLimits {
  std::size_t caches = 16;
  std::uint64_t bytes = std::uint64_t(2) << 30;
};

struct VdirStoreOptions {
  std::string root;
  // The IANA zone that holds floating times and all-day events; empty: the system's local zone.
  std::string localTimeZone;
  // The user's own calendar addresses (e.g. "ann@example.org"): attendees with one of them are
  // the current user.
  std::vector<std::string> userAddresses;
  bool watch = true;
  // A burst of changes ends after this much quiet, or at the latest this long after it began.
  std::chrono::milliseconds quietPeriod{150};
  std::chrono::milliseconds maximumDelay{1000};
  // Files larger than this are skipped with a diagnostic.
  std::uintmax_t maximumFileSize = 16u * 1024u * 1024u;
  VdirExpansionLimits limits;
  std::size_t maximumCountedOccurrences = 100000;
  // Where the persistent cache is kept: absent, the user's cache directory
  // (defaultCacheDirectory()); empty, nowhere (no cache).
  std::optional<std::string> cacheDirectory;
  // What the cache directory keeps of other stores' caches (VdirCache.h, pruneCaches).
  VdirCacheDirectoryLimits cacheDirectoryLimits;
  // Threads that parse files, decode the cache and expand a query's series; 0: one per core.
  unsigned parseThreads = 0;
};

// What became of the persistent cache.
struct VdirCacheStatus {
  std::string path;                 // empty: no cache
  bool loaded = false;              // the cache was read and trusted when the store was made
  std::size_t loadedFiles = 0;      // files it held
  std::string loadProblem;          // why it was not read, when it was not
  std::uint64_t writes = 0;         // times it was written since
  std::string writeProblem;         // why the last write failed, when it did
  std::size_t prunedFiles = 0;      // other caches (and leftovers) removed after the first write
  // The periods of recurring series expanded by earlier processes, taken over when the store was
  // made (see VdirExpansionCache), and why none were, when the file was there but not used.
  std::size_t adoptedPeriods = 0;
  std::string expansionProblem;
};

}  // namespace vesp::vdir
