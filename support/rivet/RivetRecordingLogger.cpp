#include "support/rivet/RivetRecordingLogger.h"

namespace vesp::rivet {

void RivetRecordingLogger::record(Level level, const RivetError& error, const RivetVia& via) {
  auto retained = via.retain();
  std::lock_guard lock(mutex_);
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
  std::lock_guard lock(mutex_);
  return entries_;
}

std::size_t RivetRecordingLogger::count() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

bool RivetRecordingLogger::waitForCount(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return entries_.size() >= count; });
}

void RivetRecordingLogger::clear() {
  std::lock_guard lock(mutex_);
  entries_.clear();
}

}  // namespace vesp::rivet
