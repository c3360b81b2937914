#include "support/rivet/RivetSerialQueue.h"

#include "support/rivet/RivetFatal.h"

namespace vesp::rivet {

RivetSerialQueue::RivetSerialQueue(std::string label)
    : label_(std::move(label)), shared_(std::make_shared<Shared>()), thread_([shared = shared_] { run(shared); }) {}

RivetSerialQueue::~RivetSerialQueue() {
  bool selfDestroying = isCurrent();
  std::deque<std::function<void()>> dropped;
  {
    RivetMutexLock lock(shared_->mutex);
    shared_->stopping = true;
    // Tasks left behind by a queue that is destroyed from its own thread would outlive their owner.
    if (selfDestroying) dropped.swap(shared_->tasks);
  }
  shared_->wake.notify_all();
  if (selfDestroying)
    thread_.detach();
  else
    thread_.join();
}

void RivetSerialQueue::run(const std::shared_ptr<Shared>& shared) {
  for (;;) {
    std::function<void()> task;
    {
      RivetMutexLock lock(shared->mutex);
      while (shared->tasks.empty() && !shared->stopping) lock.wait(shared->wake);
      if (shared->tasks.empty()) return;
      task = std::move(shared->tasks.front());
      shared->tasks.pop_front();
    }
    task();
  }
}

void RivetSerialQueue::async(std::function<void()> task) {
  // Notify under the lock: once it is released, the task may already have destroyed this queue.
  RivetMutexLock lock(shared_->mutex);
  shared_->tasks.push_back(std::move(task));
  shared_->wake.notify_one();
}

void RivetSerialQueue::sync(const std::function<void()>& task) {
  if (isCurrent()) fatalError("RivetSerialQueue::sync called from its own queue '" + label_ + "'");
  RivetMutex mutex;
  std::condition_variable finished;
  bool done = false;  // guarded by mutex
  async([&] {
    task();
    RivetMutexLock lock(mutex);
    done = true;
    finished.notify_one();
  });
  RivetMutexLock lock(mutex);
  while (!done) lock.wait(finished);
}

bool RivetSerialQueue::isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

}  // namespace vesp::rivet
