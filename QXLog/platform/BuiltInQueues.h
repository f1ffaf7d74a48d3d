// The library's own queues, one of each for the whole process: the main queue
// that QXLogMainQueueDrain/Run/Stop serve, and the pool of workers standing in
// for the system's global queue. The default environment (Env) runs on them.
#ifndef QXLOG_PLATFORM_BUILTINQUEUES_H_
#define QXLOG_PLATFORM_BUILTINQUEUES_H_

#include <memory>

#include "QXLog/QXLogExecutor.h"
#include "QXLog/platform/MainQueue.h"

namespace qxlog::platform {

std::shared_ptr<MainQueue> builtInMainQueue();
std::shared_ptr<Executor> builtInGlobalQueue();

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_BUILTINQUEUES_H_
