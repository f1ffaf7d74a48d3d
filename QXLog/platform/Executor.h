// A place where tasks run: the stand-in for a dispatch queue.
#ifndef QXLOG_PLATFORM_EXECUTOR_H_
#define QXLOG_PLATFORM_EXECUTOR_H_

#include <chrono>
#include <functional>

namespace qxlog::platform {

using Task = std::function<void()>;

class Executor {
 public:
  virtual ~Executor() = default;
  // Runs the task once, no earlier than `delay` from now on the monotonic clock.
  virtual void post(Task task, std::chrono::nanoseconds delay) = 0;
  void async(Task task) { post(std::move(task), std::chrono::nanoseconds(0)); }
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_EXECUTOR_H_
