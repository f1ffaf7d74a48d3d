// The two queues the library runs work on. Both can be replaced: a host may
// post main-queue work into its own event loop, and tests install a
// deterministic executor driven by a virtual clock.
#ifndef QXLOG_PLATFORM_DISPATCH_H_
#define QXLOG_PLATFORM_DISPATCH_H_

#include <memory>

#include "QXLog/QXLogExecutor.h"
#include "QXLog/platform/MainQueue.h"

namespace qxlog::platform {

std::shared_ptr<Executor> mainQueue();
std::shared_ptr<Executor> globalQueue();

// The built-in main queue, served by QXLogMainQueueDrain/Run/Stop.
MainQueue& defaultMainQueue();

// nullptr restores the built-in queue.
void setMainQueue(std::shared_ptr<Executor> executor);
void setGlobalQueue(std::shared_ptr<Executor> executor);

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_DISPATCH_H_
