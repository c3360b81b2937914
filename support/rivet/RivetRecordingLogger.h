// A logger that keeps every report in memory, for tests.
//
// Thread safety: reports may arrive from any thread; readers get consistent snapshots.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <vector>

#include "support/rivet/RivetLogging.h"
#include "support/rivet/RivetMutex.h"

namespace vesp::rivet {

class RivetRecordingLogger final : public RivetLogging {
 public:
  enum class Level { failure, anomaly };
  struct Entry {
    Level level;
    RivetError error;
    std::shared_ptr<const RivetVia> via;
  };

  void reportFailure(const RivetError& error, const RivetVia& via) override;
  void reportAnomaly(const RivetError& error, const RivetVia& via) override;

  std::vector<Entry> entries() const;
  std::size_t count() const;
  // Blocks until at least `count` reports have arrived or `timeout` has passed; true if they did.
  bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) const;
  void clear();

 private:
  void record(Level level, const RivetError& error, const RivetVia& via) RIVET_EXCLUDES(mutex_);

  mutable RivetMutex mutex_;
  mutable std::condition_variable arrived_;  // notified under mutex_ when an entry arrives
  std::vector<Entry> entries_ RIVET_GUARDED_BY(mutex_);
};

}  // namespace vesp::rivet
