// Tasks ordered by due time on the monotonic clock, first posted first among
// equals. Not synchronised: each queue guards its own schedule.
#ifndef QXLOG_PLATFORM_TASKSCHEDULE_H_
#define QXLOG_PLATFORM_TASKSCHEDULE_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <queue>
#include <vector>

#include "QXLog/QXLogExecutor.h"
#include "QXLog/platform/Clock.h"

namespace qxlog::platform {

class TaskSchedule {
 public:
  void add(Task task, int64_t dueNanos);
  bool empty() const { return tasks_.empty(); }
  std::size_t size() const { return tasks_.size(); }
  // Due time of the earliest task; only when not empty.
  int64_t nextDue() const { return tasks_.top().due; }
  // Removes and returns the earliest task if it is due at `nowNanos`.
  std::optional<Task> takeDue(int64_t nowNanos);

 private:
  struct Entry {
    int64_t due;
    uint64_t sequence;
    Task task;
  };
  struct Later {
    bool operator()(const Entry& a, const Entry& b) const {
      return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
    }
  };
  std::priority_queue<Entry, std::vector<Entry>, Later> tasks_;
  uint64_t nextSequence_ = 0;
};

// The serving loop of a queue, on the calling thread: with `lock` held on the
// mutex that guards `schedule`, runs each task as it falls due on `clock` (the lock
// released while it runs, `beforeTask` called first) and sleeps on `wake`
// until the next one, until `stopped()` holds.
template <typename Stopped, typename BeforeTask>
void serveUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& wake,
                TaskSchedule& schedule, const Clock& clock, Stopped stopped,
                BeforeTask beforeTask) {
  while (!stopped()) {
    if (std::optional<Task> task = schedule.takeDue(clock.monotonicNanos())) {
      beforeTask();
      lock.unlock();
      (*task)();
      lock.lock();
      continue;
    }
    if (schedule.empty()) {
      wake.wait(lock);
    } else {
      wake.wait_for(lock, std::chrono::nanoseconds(schedule.nextDue() - clock.monotonicNanos()));
    }
  }
}

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_TASKSCHEDULE_H_
