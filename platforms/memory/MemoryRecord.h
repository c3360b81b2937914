// The settable storage behind every memory platform object: one Fields aggregate under a mutex,
// and a log of the attributes read, in order, so that tests can check what was read and when.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

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
    std::lock_guard lock(mutex_);
    return fields_;
  }
  void setFields(Fields fields) {
    std::lock_guard lock(mutex_);
    fields_ = std::move(fields);
  }
  // Changes fields in place, under the object's lock.
  void update(const std::function<void(Fields&)>& change) {
    std::lock_guard lock(mutex_);
    change(fields_);
  }

  // The names of the attributes read through the platform interface, in order.
  std::vector<std::string> reads() const {
    std::lock_guard lock(mutex_);
    return reads_;
  }
  void clearReads() {
    std::lock_guard lock(mutex_);
    reads_.clear();
  }

 protected:
  template <class Read>
  auto read(const char* name, Read&& reader) const {
    std::lock_guard lock(mutex_);
    if (memoryReadLogging.load(std::memory_order_relaxed)) reads_.emplace_back(name);
    return reader(fields_);
  }

 private:
  mutable std::mutex mutex_;
  Fields fields_;
  mutable std::vector<std::string> reads_;
};

}  // namespace vesp::memory
