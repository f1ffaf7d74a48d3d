#include "QXLog/platform/MainQueue.h"

#include "QXLog/platform/Clock.h"

namespace qxlog::platform {

void MainQueue::post(Task task, std::chrono::nanoseconds delay) {
  int64_t due = monotonicNanos() + delay.count();
  {
    std::lock_guard lock(mutex_);
    schedule_.add(std::move(task), due);
  }
  wake_.notify_all();
}

std::size_t MainQueue::drain() {
  std::size_t ran = 0;
  for (;;) {
    std::optional<Task> task;
    {
      std::lock_guard lock(mutex_);
      task = schedule_.takeDue(monotonicNanos());
    }
    if (!task) return ran;
    (*task)();
    ++ran;
  }
}

void MainQueue::run() {
  std::unique_lock lock(mutex_);
  while (!stopRequested_) {
    if (std::optional<Task> task = schedule_.takeDue(monotonicNanos())) {
      lock.unlock();
      (*task)();
      lock.lock();
      continue;
    }
    if (schedule_.empty()) {
      wake_.wait(lock);
    } else {
      wake_.wait_for(lock, std::chrono::nanoseconds(schedule_.nextDue() - monotonicNanos()));
    }
  }
  stopRequested_ = false;
}

void MainQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
  }
  wake_.notify_all();
}

std::size_t MainQueue::pending() const {
  std::lock_guard lock(mutex_);
  return schedule_.size();
}

}  // namespace qxlog::platform
