#include "QXLog/recording/HostExecutor.h"

#include <algorithm>
#include <memory>

namespace qxlog::recording {
namespace {

// The host calls this once per task; it owns the task until then.
void runHostTask(void* task) {
  std::unique_ptr<platform::Task> owned(static_cast<platform::Task*>(task));
  (*owned)();
}

}  // namespace

void HostExecutor::post(platform::Task task, std::chrono::nanoseconds delay) {
  auto* owned = new platform::Task(std::move(task));
  post_(&runHostTask, owned, static_cast<uint64_t>(std::max<int64_t>(delay.count(), 0)), context_);
}

}  // namespace qxlog::recording
