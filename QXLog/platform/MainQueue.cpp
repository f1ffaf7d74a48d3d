#include "QXLog/platform/MainQueue.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>

namespace qxlog::platform {

MainQueue::~MainQueue() {
  if (timer_ >= 0) ::close(timer_);
}

void MainQueue::post(Task task, std::chrono::nanoseconds delay) {
  int64_t due = clock_->monotonicNanos() + delay.count();
  {
    std::lock_guard lock(mutex_);
    schedule_.add(std::move(task), due);
    if (timer_ >= 0 && (!armed_ || due < armedDue_)) armLocked();
  }
  wake_.notify_all();
}

int MainQueue::fileDescriptor() {
  std::lock_guard lock(mutex_);
  if (timer_ < 0) {
    timer_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (timer_ >= 0) armLocked();
  }
  return timer_;
}

void MainQueue::armLocked() {
  itimerspec when{};
  armed_ = !schedule_.empty();
  if (armed_) {
    armedDue_ = schedule_.nextDue();
    // Relative to now on the queue's clock; a due task fires at once (a zero
    // value would disarm the timer instead).
    int64_t wait = std::max<int64_t>(armedDue_ - clock_->monotonicNanos(), 1);
    when.it_value.tv_sec = wait / 1000000000;
    when.it_value.tv_nsec = wait % 1000000000;
  }
  // Setting the timer also clears an expiry not yet read.
  ::timerfd_settime(timer_, 0, &when, nullptr);
}

std::size_t MainQueue::drain() {
  std::size_t ran = 0;
  {
    std::lock_guard lock(mutex_);
    server_ = std::this_thread::get_id();
  }
  for (;;) {
    std::optional<Task> task;
    {
      std::lock_guard lock(mutex_);
      task = schedule_.takeDue(clock_->monotonicNanos());
      if (!task && timer_ >= 0) armLocked();
    }
    if (!task) return ran;
    (*task)();
    ++ran;
  }
}

void MainQueue::run() {
  std::unique_lock lock(mutex_);
  server_ = std::this_thread::get_id();
  serveUntil(
      lock, wake_, schedule_, *clock_, [this] { return stopRequested_; }, [] {});
  stopRequested_ = false;
}

bool MainQueue::serveHere() {
  {
    std::lock_guard lock(mutex_);
    if (server_ != std::thread::id() && server_ != std::this_thread::get_id()) return false;
  }
  drain();
  return true;
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
