#include "platforms/memory/MemoryDelivery.h"

#include <algorithm>
#include <cmath>

namespace vesp::memory {

namespace {
// The heap keeps the earliest due task (then the earliest scheduled) on top.
bool later(const auto& lhs, const auto& rhs) {
  return lhs.due != rhs.due ? lhs.due > rhs.due : lhs.sequence > rhs.sequence;
}
}  // namespace

MemoryDeliveryThread::MemoryDeliveryThread()
    : shared_(std::make_shared<Shared>()), thread_([shared = shared_] { run(shared); }) {}

MemoryDeliveryThread::~MemoryDeliveryThread() {
  // Undelivered tasks are released outside the lock: what they hold may call back in.
  std::vector<Task> scheduled;
  std::vector<std::function<void()>> held;
  {
    rivet::RivetMutexLock lock(shared_->mutex);
    shared_->stopping = true;
    scheduled.swap(shared_->scheduled);
    held.swap(shared_->held);
  }
  shared_->wake.notify_all();
  shared_->idle.notify_all();
  if (isDeliveryThread())
    thread_.detach();
  else
    thread_.join();
}

void MemoryDeliveryThread::run(const std::shared_ptr<Shared>& shared) {
  rivet::RivetMutexLock lock(shared->mutex);
  for (;;) {
    if (shared->stopping) return;
    if (shared->scheduled.empty()) {
      shared->idle.notify_all();
      lock.wait(shared->wake);
      continue;
    }
    auto due = shared->scheduled.front().due;
    if (Clock::now() < due) {
      // Nothing is due now: those waiting for idleness may go on.
      shared->idle.notify_all();
      lock.waitUntil(shared->wake, due);
      continue;
    }
    std::pop_heap(shared->scheduled.begin(), shared->scheduled.end(), [](auto& a, auto& b) { return later(a, b); });
    auto task = std::move(shared->scheduled.back().run);
    shared->scheduled.pop_back();
    shared->running = true;
    lock.unlock();
    task();
    task = nullptr;  // release what the task held before taking the lock again
    lock.lock();
    shared->running = false;
  }
}

void MemoryDeliveryThread::schedule(Shared& shared, Clock::time_point due, std::function<void()> task) {
  shared.scheduled.push_back(Task{due, shared.nextSequence++, std::move(task)});
  std::push_heap(shared.scheduled.begin(), shared.scheduled.end(), [](auto& a, auto& b) { return later(a, b); });
}

void MemoryDeliveryThread::deliver(MemoryDelivery delivery, std::function<void()> task) {
  // Everything under the lock: once it is released, a task may already have destroyed this thread.
  rivet::RivetMutexLock lock(shared_->mutex);
  if (shared_->stopping) return;
  switch (delivery.kind) {
    case MemoryDelivery::Kind::immediately: schedule(*shared_, Clock::now(), std::move(task)); break;
    case MemoryDelivery::Kind::after: {
      double seconds = std::isfinite(delivery.delaySeconds) ? std::clamp(delivery.delaySeconds, 0.0, 1e6) : 1e6;
      auto delay = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
      schedule(*shared_, Clock::now() + delay, std::move(task));
      break;
    }
    case MemoryDelivery::Kind::held: shared_->held.push_back(std::move(task)); return;
    case MemoryDelivery::Kind::never: return;  // the task is released when this call returns
  }
  shared_->wake.notify_all();
}

std::size_t MemoryDeliveryThread::releaseHeld() {
  rivet::RivetMutexLock lock(shared_->mutex);
  std::size_t count = shared_->held.size();
  auto now = Clock::now();
  for (auto& task : shared_->held) schedule(*shared_, now, std::move(task));
  shared_->held.clear();
  shared_->wake.notify_all();
  return count;
}

std::size_t MemoryDeliveryThread::heldCount() const {
  rivet::RivetMutexLock lock(shared_->mutex);
  return shared_->held.size();
}

void MemoryDeliveryThread::waitUntilIdle() {
  if (isDeliveryThread()) return;
  rivet::RivetMutexLock lock(shared_->mutex);
  auto idle = [&] {
    shared_->mutex.assertHeld();  // called only below, under the lock
    if (shared_->stopping) return true;
    if (shared_->running) return false;
    return shared_->scheduled.empty() || shared_->scheduled.front().due > Clock::now();
  };
  while (!idle()) lock.wait(shared_->idle);
}

}  // namespace vesp::memory
