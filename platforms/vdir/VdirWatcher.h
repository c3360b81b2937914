// The directories of a store, watched through the environment's watch, and the bursts of changes
// under them.
//
// next() blocks until a burst of changes is over (a quiet period without events, or at the latest
// a maximum delay after the burst began), until the root is to be looked for again (every second
// while it is not watched), or until the watch is stopped. Any event, an overflow of the queue
// included, counts as a change: the caller rescans the whole tree, so no change is ever missed.
// Watches follow paths: a directory removed or moved away is let go with every directory watched
// under it, and watch() takes them again when they are found under those paths. Used by one thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "platforms/vdir/VdirEnv.h"
#include "platforms/vdir/VdirSnapshot.h"

namespace vesp::vdir {

class VdirWatcher {
 public:
  enum class Wake { changed, stop };

  // `overflows` counts the overflows seen; it and `watch` outlive this.
  VdirWatcher(VdirDirectoryWatch& watch, std::string root, std::chrono::milliseconds quietPeriod,
              std::chrono::milliseconds maximumDelay, std::atomic<std::uint64_t>& overflows);
  VdirWatcher(const VdirWatcher&) = delete;
  VdirWatcher& operator=(const VdirWatcher&) = delete;

  // Watches every directory of `wanted` not watched yet; returns whether it added any. A directory
  // watched only after the scan that found it may have changed in between: call markChanged().
  bool watch(const std::set<std::string>& wanted);
  // Counts a change now, as if an event had arrived.
  void markChanged();
  Wake next();

  // The directories to watch for a snapshot of the tree at `root`: the root, every collection,
  // every account, and directories under the root that may become accounts.
  static std::set<std::string> directoriesOf(const VdirSnapshot& snapshot, const std::string& root, VdirEnv& env);

 private:
  using Clock = std::chrono::steady_clock;
  std::chrono::milliseconds timeoutFrom(Clock::time_point now) const;  // negative: none
  void take(const std::vector<VdirDirectoryWatch::Change>& changes);
  void forget(const std::string& directory);

  VdirDirectoryWatch& watch_;
  const std::string root_;
  const std::chrono::milliseconds quietPeriod_, maximumDelay_;
  std::atomic<std::uint64_t>& overflows_;
  std::set<std::string> watched_;
  bool rootWatched_ = false;
  bool dirty_ = false;  // a burst is under way
  Clock::time_point first_{}, last_{};
};

}  // namespace vesp::vdir
