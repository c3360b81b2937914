#include "support/rivet/RivetSerialQueue.h"

#include "support/rivet/RivetFatal.h"

namespace vesp::rivet {

RivetSerialQueue::RivetSerialQueue(std::string label)
    : label_(std::move(label)), shared_(std::make_shared<Shared>()), thread_([shared = shared_] { run(shared); }) {}

RivetSerialQueue::~RivetSerialQueue() {
  bool selfDestroying = isCurrent();
  std::deque<std::function<void()>> dropped;
  {
    std::lock_guard lock(shared_->mutex);
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
      std::unique_lock lock(shared->mutex);
      shared->wake.wait(lock, [&] { return !shared->tasks.empty() || shared->stopping; });
      if (shared->tasks.empty()) return;
      task = std::move(shared->tasks.front());
      shared->tasks.pop_front();
    }
    task();
  }
}

void RivetSerialQueue::async(std::function<void()> task) {
  // Notify under the lock: once it is released, the task may already have destroyed this queue.
  std::lock_guard lock(shared_->mutex);
  shared_->tasks.push_back(std::move(task));
  shared_->wake.notify_one();
}

void RivetSerialQueue::sync(const std::function<void()>& task) {
  if (isCurrent()) fatalError("RivetSerialQueue::sync called from its own queue '" + label_ + "'");
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  async([&] {
    task();
    std::lock_guard lock(mutex);
    done = true;
    finished.notify_one();
  });
  std::unique_lock lock(mutex);
  finished.wait(lock, [&] { return done; });
}

bool RivetSerialQueue::isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

}  // namespace vesp::rivet
