#include "support/rivet/RivetRecordingLogger.h"

namespace vesp::rivet {

void RivetRecordingLogger::record(Level level, const RivetError& error, const RivetVia& via) {
  auto retained = via.retain();
  RivetMutexLock lock(mutex_);
  entries_.push_back(Entry{level, error, std::move(retained)});
  arrived_.notify_all();
}

void RivetRecordingLogger::reportFailure(const RivetError& error, const RivetVia& via) {
  record(Level::failure, error, via);
}
void RivetRecordingLogger::reportAnomaly(const RivetError& error, const RivetVia& via) {
  record(Level::anomaly, error, via);
}

std::vector<RivetRecordingLogger::Entry> RivetRecordingLogger::entries() const {
  RivetMutexLock lock(mutex_);
  return entries_;
}

std::size_t RivetRecordingLogger::count() const {
  RivetMutexLock lock(mutex_);
  return entries_.size();
}

bool RivetRecordingLogger::waitForCount(std::size_t count, std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  RivetMutexLock lock(mutex_);
  while (entries_.size() < count)
    if (!lock.waitUntil(arrived_, deadline)) return entries_.size() >= count;
  return true;
}

void RivetRecordingLogger::clear() {
  RivetMutexLock lock(mutex_);
  entries_.clear();
}

}  // namespace vesp::rivet
