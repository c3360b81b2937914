// A mutex the compiler checks. Members marked RIVET_GUARDED_BY(m) may be read or written only with
// m held, and functions marked RIVET_REQUIRES(m) called only with it held; clang's
// -Wthread-safety (on in every clang build of the tree, as an error) proves both at compile time.
// Other compilers see plain std::mutex code.
//
//   class Counter {
//    public:
//     void add() RIVET_EXCLUDES(mutex_) { rivet::RivetMutexLock lock(mutex_); ++count_; }
//    private:
//     rivet::RivetMutex mutex_;
//     int count_ RIVET_GUARDED_BY(mutex_) = 0;
//   };
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define RIVET_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define RIVET_THREAD_ANNOTATION(x)
#endif

#define RIVET_CAPABILITY(name) RIVET_THREAD_ANNOTATION(capability(name))
#define RIVET_SCOPED_CAPABILITY RIVET_THREAD_ANNOTATION(scoped_lockable)
#define RIVET_GUARDED_BY(m) RIVET_THREAD_ANNOTATION(guarded_by(m))
#define RIVET_PT_GUARDED_BY(m) RIVET_THREAD_ANNOTATION(pt_guarded_by(m))
#define RIVET_ACQUIRED_AFTER(...) RIVET_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define RIVET_ACQUIRED_BEFORE(...) RIVET_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define RIVET_REQUIRES(...) RIVET_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define RIVET_ACQUIRE(...) RIVET_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RIVET_RELEASE(...) RIVET_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RIVET_TRY_ACQUIRE(...) RIVET_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RIVET_EXCLUDES(...) RIVET_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define RIVET_ASSERT_CAPABILITY(x) RIVET_THREAD_ANNOTATION(assert_capability(x))
#define RIVET_RETURN_CAPABILITY(x) RIVET_THREAD_ANNOTATION(lock_returned(x))
#define RIVET_NO_THREAD_SAFETY_ANALYSIS RIVET_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace vesp::rivet {

// std::mutex, with the annotations the analysis needs. Not recursive.
class RIVET_CAPABILITY("mutex") RivetMutex {
 public:
  RivetMutex() = default;
  RivetMutex(const RivetMutex&) = delete;
  RivetMutex& operator=(const RivetMutex&) = delete;

  void lock() RIVET_ACQUIRE() { mutex_.lock(); }
  void unlock() RIVET_RELEASE() { mutex_.unlock(); }
  bool try_lock() RIVET_TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  // Tells the analysis the caller holds this mutex (where it cannot see that it does).
  void assertHeld() const RIVET_ASSERT_CAPABILITY(this) {}

 private:
  friend class RivetMutexLock;
  std::mutex mutex_;
};

// Holds a RivetMutex for its scope. It can let go of it for a while (unlock, then lock again)
// and wait on a condition variable, which releases the mutex while it waits and holds it again
// when the wait returns. Write the condition as a loop around wait(), so that the analysis sees
// the guarded members read under the mutex:
//
//   rivet::RivetMutexLock lock(mutex_);
//   while (queue_.empty()) lock.wait(arrived_);
class RIVET_SCOPED_CAPABILITY RivetMutexLock {
 public:
  explicit RivetMutexLock(RivetMutex& mutex) RIVET_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~RivetMutexLock() RIVET_RELEASE() {}
  RivetMutexLock(const RivetMutexLock&) = delete;
  RivetMutexLock& operator=(const RivetMutexLock&) = delete;

  void unlock() RIVET_RELEASE() { lock_.unlock(); }
  void lock() RIVET_ACQUIRE() { lock_.lock(); }

  void wait(std::condition_variable& condition) { condition.wait(lock_); }
  // Returns false when the time came first.
  template <class Clock, class Duration>
  bool waitUntil(std::condition_variable& condition, const std::chrono::time_point<Clock, Duration>& time) {
    return condition.wait_until(lock_, time) == std::cv_status::no_timeout;
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace vesp::rivet
