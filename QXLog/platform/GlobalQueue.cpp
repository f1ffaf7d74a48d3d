#include "QXLog/platform/GlobalQueue.h"

namespace qxlog::platform {

GlobalQueue::~GlobalQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& worker : workers_) worker.join();
}

void GlobalQueue::post(Task task, std::chrono::nanoseconds delay) {
  int64_t due = clock_->monotonicNanos() + delay.count();
  {
    std::lock_guard lock(mutex_);
    if (workers_.empty()) startWorkersLocked();
    schedule_.add(std::move(task), due);
  }
  wake_.notify_one();
}

void GlobalQueue::startWorkersLocked() {
  for (unsigned i = 0; i < workerCount_; ++i) workers_.emplace_back([this] { work(); });
}

void GlobalQueue::work() {
  std::unique_lock lock(mutex_);
  // Another worker may be waiting for a later task; each run lets it
  // recompute its wait.
  serveUntil(
      lock, wake_, schedule_, *clock_, [this] { return stopping_; },
      [this] { wake_.notify_one(); });
}

}  // namespace qxlog::platform
