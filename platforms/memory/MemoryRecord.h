// The settable storage behind every memory platform object: one Fields aggregate under a mutex,
// and a log of the attributes read, in order, so that tests can check what was read and when.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "support/rivet/RivetMutex.h"

namespace vesp::memory {

// Whether memory objects log the attributes read from them; on unless a benchmark switches it off
// for the whole process, so that the log neither grows without end nor is measured.
inline std::atomic<bool> memoryReadLogging{true};

template <class Fields>
class MemoryRecord {
 public:
  explicit MemoryRecord(Fields fields) : fields_(std::move(fields)) {}

  // A copy of every field.
  Fields fields() const {
    rivet::RivetMutexLock lock(mutex_);
    return fields_;
  }
  void setFields(Fields fields) {
    rivet::RivetMutexLock lock(mutex_);
    fields_ = std::move(fields);
  }
  // Changes fields in place, under the object's lock.
  void update(const std::function<void(Fields&)>& change) {
    rivet::RivetMutexLock lock(mutex_);
    change(fields_);
  }

  // The names of the attributes read through the platform interface, in order.
  std::vector<std::string> reads() const {
    rivet::RivetMutexLock lock(mutex_);
    return reads_;
  }
  void clearReads() {
    rivet::RivetMutexLock lock(mutex_);
    reads_.clear();
  }

 protected:
  template <class Read>
  auto read(const char* name, Read&& reader) const {
    rivet::RivetMutexLock lock(mutex_);
    if (memoryReadLogging.load(std::memory_order_relaxed)) reads_.emplace_back(name);
    return reader(fields_);
  }

 private:
  mutable rivet::RivetMutex mutex_;
  Fields fields_ RIVET_GUARDED_BY(mutex_);
  mutable std::vector<std::string> reads_ RIVET_GUARDED_BY(mutex_);
};

}  // namespace vesp::memory
