// The C helpers through which a host sets context and serves the main queue.
#include <cstdlib>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogExecutor.h"
#include "QXLog/platform/BuiltInQueues.h"
#include "QXLog/platform/Env.h"
#include "QXLog/recording/HostExecutor.h"
#include "QXLog/recording/HostStrings.h"
#include "QXLog/recording/UnknownProperties.h"

using qxlog::recording::fromHost;
using qxlog::recording::toHost;

void QXLogFree(void* pointer) {
  std::free(pointer);
}

void QXLogFormatSetString(const char* property, const char* value) {
  if (property == nullptr) return;
  if (!QXLogCenter::center().format().setStringProperty(property, fromHost(value))) {
    qxlog::recording::traceUnknownProperty(property);
  }
}

char* QXLogFormatCopyString(const char* property) {
  if (property == nullptr) return nullptr;
  auto value = QXLogCenter::center().format().stringProperty(property);
  return value ? toHost(*value) : nullptr;
}

void QXLogFormatSetIsDev(bool isDev) {
  QXLogCenter::center().format().setIsDev(isDev);
}

void QXLogSetScreenScale(double scale) {
  QXLogCenter::center().format().setScreenScale(scale);
}

void QXLogCenterGetLogServerInfo(void) {
  QXLogCenter::center().getLogServerInfo();
}

void QXLogCenterSaveActionStartTime(const char* key) {
  if (key == nullptr) return;  // a nil key has no entry to mark
  QXLogCenter::center().saveActionStartTime(*fromHost(key));
}

void QXLogSetDocumentsDirectory(const char* path) {
  QXLogCenter::center().env().setDocumentsDirectory(path != nullptr ? path : "");
}

void QXLogSetConsoleHandler(void (*handler)(const char* line, void* context), void* context) {
  if (handler == nullptr) {
    QXLogCenter::center().env().setConsoleSink(nullptr);
    return;
  }
  QXLogCenter::center().env().setConsoleSink(
      [handler, context](const std::string& line) { handler(line.c_str(), context); });
}

void QXLogSetDelivery(QXLogDelivery delivery) {
  QXLogCenter::center().setDelivery(delivery == QXLogDeliveryAtLeastOnce
                                        ? QXLogCenter::Delivery::kAtLeastOnce
                                        : QXLogCenter::Delivery::kDescribed);
}

void QXLogSetQueueLimit(size_t limit) {
  QXLogCenter::center().setQueueLimit(limit);
}

int QXLogFlush(int64_t timeout_ms) {
  return QXLogCenter::center().flush(timeout_ms);
}

void QXLogSetDeliveryHandler(void (*handler)(QXLogBatchOutcome outcome, size_t records,
                                             const char* reason, void* context),
                             void* context) {
  if (handler == nullptr) return QXLogCenter::center().setDeliveryHandler(nullptr);
  QXLogCenter::center().setDeliveryHandler([handler, context](QXLogCenter::BatchOutcome outcome,
                                                              std::size_t records,
                                                              const std::string& reason) {
    handler(static_cast<QXLogBatchOutcome>(outcome), records, reason.c_str(), context);
  });
}

void QXLogMainQueueDrain(void) {
  qxlog::platform::builtInMainQueue()->drain();
}
void QXLogMainQueueRun(void) {
  qxlog::platform::builtInMainQueue()->run();
}
void QXLogMainQueueStop(void) {
  qxlog::platform::builtInMainQueue()->stop();
}
int QXLogMainQueueFileDescriptor(void) {
  return qxlog::platform::builtInMainQueue()->fileDescriptor();
}

void QXLogSetMainQueueExecutor(void (*post)(void (*task)(void* task_context), void* task_context,
                                            uint64_t delay_ns, void* context),
                               void* context) {
  qxlog::platform::setMainQueue(
      post != nullptr ? std::make_shared<qxlog::recording::HostExecutor>(post, context) : nullptr);
}

void qxlog::platform::setMainQueue(std::shared_ptr<Executor> executor) {
  QXLogCenter::center().env().setMainQueue(std::move(executor));
}
