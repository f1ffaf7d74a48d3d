// A place where tasks run: the stand-in for a dispatch queue. C++ hosts that
// run an event loop of their own (Qt, GLib, libuv, asio) install an executor
// that posts into it with setMainQueue, and the library's main-queue work
// (deferred reports, upload answers, timer submissions) runs there. C hosts
// have QXLogSetMainQueueExecutor and QXLogMainQueueFileDescriptor.
#ifndef QXLOG_QXLOGEXECUTOR_H_
#define QXLOG_QXLOGEXECUTOR_H_

#include <chrono>
#include <functional>
#include <memory>

namespace qxlog::platform {

using Task = std::function<void()>;

class Executor {
 public:
  virtual ~Executor() = default;
  // Runs the task once, no earlier than `delay` from now on the monotonic clock.
  virtual void post(Task task, std::chrono::nanoseconds delay) = 0;
  void async(Task task) { post(std::move(task), std::chrono::nanoseconds(0)); }
  // Runs the tasks that are due on the calling thread, when that thread may
  // serve this queue; false when it may not (the default), and the caller
  // then waits for the queue's own thread instead. QXLogFlush uses it.
  virtual bool serveHere() { return false; }
};

// Where main-queue tasks go from now on; nullptr restores the built-in queue
// that QXLogMainQueueDrain and QXLogMainQueueRun serve. Install it before the
// first report: tasks already posted stay where they were.
void setMainQueue(std::shared_ptr<Executor> executor);

}  // namespace qxlog::platform

#endif  // QXLOG_QXLOGEXECUTOR_H_
