// A dispatch group: a count of pieces of work in flight, and a wait for it to reach zero.
//
// Thread safety: every operation may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <optional>

#include "support/rivet/RivetMutex.h"
#include "support/rivet/RivetResult.h"

namespace vesp::rivet {

class RivetDispatchGroup {
 public:
  virtual ~RivetDispatchGroup() = default;

  // Counts one more piece of work in flight.
  virtual void enter();
  // Counts one piece of work done. REQUIRES: a matching enter(); an unbalanced leave stops the process.
  virtual void leave();
  // Blocks until the group is empty: success when it empties within `timeout` seconds (no
  // time-out: waits as long as it takes), the failure "Dispatch group wait timed out" otherwise.
  // A negative or not-a-number time-out only checks whether the group is already empty.
  virtual RivetResult<void> wait(std::optional<double> timeout);

  // The number of pieces of work in flight.
  std::int64_t count() const;

 private:
  mutable RivetMutex mutex_;
  std::condition_variable emptied_;  // notified under mutex_ when count_ reaches zero
  std::int64_t count_ RIVET_GUARDED_BY(mutex_) = 0;
};

}  // namespace vesp::rivet
