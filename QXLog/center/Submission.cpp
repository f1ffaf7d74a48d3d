// Batch submission and upload.
#include "QXLog/QXLogCenter.h"

void QXLogCenter::submitAllLog() {}

QXLogCenter::Dictionary QXLogCenter::combinationStatisticalLog() {
  std::lock_guard lock(lock_);
  return format().combinationLog(&actionQueueLocked());
}

void QXLogCenter::pushLog(Dictionary, const NullableString&, bool) {}
