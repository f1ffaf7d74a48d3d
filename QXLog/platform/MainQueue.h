// The stand-in for the main dispatch queue: a serial executor that the host
// serves on its main thread, either from its own loop (drain) or by handing
// the thread over (run until stop).
#ifndef QXLOG_PLATFORM_MAINQUEUE_H_
#define QXLOG_PLATFORM_MAINQUEUE_H_

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "QXLog/QXLogExecutor.h"
#include "QXLog/platform/Clock.h"
#include "QXLog/platform/TaskSchedule.h"

namespace qxlog::platform {

class MainQueue final : public Executor {
 public:
  // Due times are read on `clock`.
  explicit MainQueue(std::shared_ptr<const Clock> clock = systemClock())
      : clock_(std::move(clock)) {}
  void post(Task task, std::chrono::nanoseconds delay) override;
  // Runs, on the calling thread, every task that is due; returns how many ran.
  std::size_t drain();
  // Serves the queue on the calling thread until stop() is called.
  void run();
  void stop();
  // Drains when the calling thread is the one that last served the queue, or
  // when no thread has served it yet.
  bool serveHere() override;
  std::size_t pending() const;
  // A descriptor (a timerfd, close-on-exec, owned by the queue) that is
  // readable exactly when a task is due: at once for an immediate task, at its
  // time for a delayed one. drain() re-arms it. -1 if none could be made.
  int fileDescriptor();
  ~MainQueue() override;

 private:
  // Arms the descriptor for the earliest task, or disarms it when there is
  // none. Called with mutex_ held.
  void armLocked();

  const std::shared_ptr<const Clock> clock_;
  mutable std::mutex mutex_;
  int timer_ = -1;
  bool armed_ = false;
  int64_t armedDue_ = 0;
  std::condition_variable wake_;
  TaskSchedule schedule_;
  bool stopRequested_ = false;
  std::thread::id server_;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_MAINQUEUE_H_
