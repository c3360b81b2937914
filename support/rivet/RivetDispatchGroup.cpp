#include "support/rivet/RivetDispatchGroup.h"

#include <chrono>
#include <cmath>

namespace vesp::rivet {

void RivetDispatchGroup::enter() {
  RivetMutexLock lock(mutex_);
  ++count_;
}

void RivetDispatchGroup::leave() {
  // Notify under the lock: a waiter that sees the group empty may destroy it as soon as the lock
  // is released.
  RivetMutexLock lock(mutex_);
  if (count_ == 0) fatalError("Unbalanced call to RivetDispatchGroup::leave()");
  if (--count_ == 0) emptied_.notify_all();
}

RivetResult<void> RivetDispatchGroup::wait(std::optional<double> timeout) {
  RivetMutexLock lock(mutex_);
  // Past about 30 years a time-out is as good as none, and would overflow the clock.
  constexpr double longestTimeout = 1e9;
  if (!timeout || *timeout > longestTimeout) {
    while (count_ != 0) lock.wait(emptied_);
    return RivetResultVoidSuccess;
  }
  double seconds = std::isnan(*timeout) || *timeout < 0 ? 0.0 : *timeout;
  auto deadline = std::chrono::steady_clock::now() +
                  std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
  while (count_ != 0)
    if (!lock.waitUntil(emptied_, deadline)) break;
  if (count_ == 0) return RivetResultVoidSuccess;
  return RivetResult<void>("Dispatch group wait timed out", RivetArgs{{"timeout", *timeout}, {"count", count_}},
                           "RivetDispatchGroup", "wait(timeout:)", __LINE__);
}

std::int64_t RivetDispatchGroup::count() const {
  RivetMutexLock lock(mutex_);
  return count_;
}

}  // namespace vesp::rivet
