// A serial queue: one thread that runs submitted tasks one at a time, in submission order.
//
// Thread safety: tasks may be submitted from any thread. The destructor runs the tasks already
// submitted and joins the thread; destroyed from one of its own tasks, it drops the tasks still
// waiting and lets its thread end by itself.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "support/rivet/RivetMutex.h"

namespace vesp::rivet {

class RivetSerialQueue {
 public:
  explicit RivetSerialQueue(std::string label);
  ~RivetSerialQueue();
  RivetSerialQueue(const RivetSerialQueue&) = delete;
  RivetSerialQueue& operator=(const RivetSerialQueue&) = delete;

  // Queues `task` and returns at once.
  void async(std::function<void()> task);
  // Queues `task` and blocks until it has run.
  // REQUIRES: !isCurrent() (waiting on itself would never end; it stops the process instead).
  void sync(const std::function<void()>& task);
  // True when called from a task of this queue.
  bool isCurrent() const;
  const std::string& label() const { return label_; }

 private:
  struct Shared {
    RivetMutex mutex;
    std::condition_variable wake;  // notified under mutex when a task arrives or the queue stops
    std::deque<std::function<void()>> tasks RIVET_GUARDED_BY(mutex);
    bool stopping RIVET_GUARDED_BY(mutex) = false;
  };
  static void run(const std::shared_ptr<Shared>& shared);

  std::string label_;
  std::shared_ptr<Shared> shared_;
  std::thread thread_;
};

}  // namespace vesp::rivet
