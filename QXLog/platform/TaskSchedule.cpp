#include "QXLog/platform/TaskSchedule.h"

namespace qxlog::platform {

void TaskSchedule::add(Task task, int64_t dueNanos) {
  tasks_.push(Entry{dueNanos, nextSequence_++, std::move(task)});
}

std::optional<Task> TaskSchedule::takeDue(int64_t nowNanos) {
  if (tasks_.empty() || tasks_.top().due > nowNanos) return std::nullopt;
  // priority_queue only exposes a const top; the entry is moved out just before pop.
  Task task = std::move(const_cast<Entry&>(tasks_.top()).task);
  tasks_.pop();
  return task;
}

}  // namespace qxlog::platform
