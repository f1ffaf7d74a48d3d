// The stand-in for the system's concurrent global queue: a small pool of
// worker threads, started on first use, that runs tasks when they are due.
// It is the only place where the library creates threads.
#ifndef QXLOG_PLATFORM_GLOBALQUEUE_H_
#define QXLOG_PLATFORM_GLOBALQUEUE_H_

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "QXLog/QXLogExecutor.h"
#include "QXLog/platform/Clock.h"
#include "QXLog/platform/TaskSchedule.h"

namespace qxlog::platform {

class GlobalQueue final : public Executor {
 public:
  // Due times are read on `clock`.
  explicit GlobalQueue(unsigned workers = 4, std::shared_ptr<const Clock> clock = systemClock())
      : workerCount_(workers), clock_(std::move(clock)) {}
  // Lets the workers finish their current task, drops what is still scheduled,
  // and joins them.
  ~GlobalQueue() override;

  void post(Task task, std::chrono::nanoseconds delay) override;

 private:
  void startWorkersLocked();
  void work();

  const unsigned workerCount_;
  const std::shared_ptr<const Clock> clock_;
  std::mutex mutex_;
  std::condition_variable wake_;
  TaskSchedule schedule_;
  std::vector<std::thread> workers_;
  bool stopping_ = false;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_GLOBALQUEUE_H_
