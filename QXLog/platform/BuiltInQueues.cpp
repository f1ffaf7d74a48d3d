#include "QXLog/platform/BuiltInQueues.h"

#include "QXLog/platform/GlobalQueue.h"

namespace qxlog::platform {

// Both queues live for the whole process: tasks still pending at exit are
// simply never run, and no worker is joined during static teardown.
std::shared_ptr<MainQueue> builtInMainQueue() {
  static auto* queue = new std::shared_ptr<MainQueue>(std::make_shared<MainQueue>());
  return *queue;
}

std::shared_ptr<Executor> builtInGlobalQueue() {
  static auto* queue = new std::shared_ptr<Executor>(std::make_shared<GlobalQueue>());
  return *queue;
}

}  // namespace qxlog::platform
