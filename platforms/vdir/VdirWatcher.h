// The directories of a store watched with inotify, and the bursts of changes under them.
//
// next() blocks until a burst of changes is over (a quiet period without events, or at the latest
// a maximum delay after the burst began), until the root is to be looked for again (every second
// while it is not watched), or until a byte arrives on the stop descriptor. Any event, an
// overflow of the kernel's queue included, counts as a change: the caller rescans the whole tree,
// so no change is ever missed. Used by one thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "platforms/vdir/VdirSnapshot.h"

namespace vesp::vdir {

class VdirWatcher {
 public:
  enum class Wake { changed, stop };

  // `dropNextEvents` makes the next events read be lost and an overflow be reported instead (as
  // when the kernel's queue overflows); `overflows` counts the overflows seen. Both outlive this.
  VdirWatcher(std::string root, std::chrono::milliseconds quietPeriod, std::chrono::milliseconds maximumDelay,
              int stopDescriptor, std::atomic<bool>& dropNextEvents, std::atomic<std::uint64_t>& overflows);
  ~VdirWatcher();
  VdirWatcher(const VdirWatcher&) = delete;
  VdirWatcher& operator=(const VdirWatcher&) = delete;

  // Why the tree cannot be watched (no inotify descriptor), or nothing when it can.
  std::optional<std::string> problem() const { return problem_; }

  // Watches every directory of `wanted` not watched yet; returns whether it added any. A directory
  // watched only after the scan that found it may have changed in between: call markChanged().
  bool watch(const std::set<std::string>& wanted);
  // Counts a change now, as if an event had arrived.
  void markChanged();
  Wake next();

  // The directories to watch for a snapshot of the tree at `root`: the root, every collection,
  // every account, and directories under the root that may become accounts.
  static std::set<std::string> directoriesOf(const VdirSnapshot& snapshot, const std::string& root);

 private:
  using Clock = std::chrono::steady_clock;
  int timeoutFrom(Clock::time_point now) const;  // for poll, in milliseconds; -1: none
  void drain();

  const std::string root_;
  const std::chrono::milliseconds quietPeriod_, maximumDelay_;
  const int stopDescriptor_;
  std::atomic<bool>& dropNextEvents_;
  std::atomic<std::uint64_t>& overflows_;
  int descriptor_ = -1;
  std::optional<std::string> problem_;
  std::map<int, std::string> watches_;  // by watch descriptor
  bool rootWatched_ = false;
  bool dirty_ = false;  // a burst is under way
  Clock::time_point first_{}, last_{};
};

}  // namespace vesp::vdir
