// Tasks ordered by due time on the monotonic clock, first posted first among
// equals. Not synchronised: each queue guards its own schedule.
#ifndef QXLOG_PLATFORM_TASKSCHEDULE_H_
#define QXLOG_PLATFORM_TASKSCHEDULE_H_

#include <cstdint>
#include <optional>
#include <queue>
#include <vector>

#include "QXLog/QXLogExecutor.h"

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

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_TASKSCHEDULE_H_
