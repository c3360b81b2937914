// When the memory platform delivers a completion (an access answer, a reminder fetch): at once,
// after a delay, when the test releases it, or never. Deliveries run on the platform's own
// delivery thread, never on the caller's.
//
// Thread safety: every operation may be called from any thread. Destroying the thread drops what
// has not been delivered yet (the platform went away) and joins it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "support/rivet/RivetMutex.h"

namespace vesp::memory {

struct MemoryDelivery {
  enum class Kind { immediately, after, held, never };
  Kind kind = Kind::immediately;
  double delaySeconds = 0.0;

  static MemoryDelivery immediately() { return {Kind::immediately, 0.0}; }
  static MemoryDelivery after(double seconds) { return {Kind::after, seconds}; }
  // Kept until MemoryDeliveryThread::releaseHeld.
  static MemoryDelivery held() { return {Kind::held, 0.0}; }
  static MemoryDelivery never() { return {Kind::never, 0.0}; }

  friend bool operator==(const MemoryDelivery&, const MemoryDelivery&) = default;
};

class MemoryDeliveryThread {
 public:
  MemoryDeliveryThread();
  ~MemoryDeliveryThread();
  MemoryDeliveryThread(const MemoryDeliveryThread&) = delete;
  MemoryDeliveryThread& operator=(const MemoryDeliveryThread&) = delete;

  // Schedules `task` as `delivery` says; a `never` task is dropped at once.
  void deliver(MemoryDelivery delivery, std::function<void()> task);
  // Hands every held task to the delivery thread, in the order they were held; returns how many.
  std::size_t releaseHeld();
  std::size_t heldCount() const;
  // Blocks until nothing is due: every task scheduled at once has run, as has every delayed one
  // whose time has come. Held and not-yet-due delayed tasks are not waited for.
  void waitUntilIdle();
  bool isDeliveryThread() const { return std::this_thread::get_id() == thread_.get_id(); }

 private:
  using Clock = std::chrono::steady_clock;
  struct Task {
    Clock::time_point due;
    std::uint64_t sequence;
    std::function<void()> run;
  };
  struct Shared {
    mutable rivet::RivetMutex mutex;
    std::condition_variable wake;
    std::condition_variable idle;
    std::vector<Task> scheduled RIVET_GUARDED_BY(mutex);  // a heap ordered by (due, sequence)
    std::vector<std::function<void()>> held RIVET_GUARDED_BY(mutex);
    std::uint64_t nextSequence RIVET_GUARDED_BY(mutex) = 0;
    bool running RIVET_GUARDED_BY(mutex) = false;
    bool stopping RIVET_GUARDED_BY(mutex) = false;
  };
  static void run(const std::shared_ptr<Shared>& shared);
  static void schedule(Shared& shared, Clock::time_point due, std::function<void()> task)
      RIVET_REQUIRES(shared.mutex);

  std::shared_ptr<Shared> shared_;
  std::thread thread_;
};

}  // namespace vesp::memory
