#include "QXLog/QXLogCenter.h"

#include "QXLog/center/PendingQueue.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/platform/Env.h"
#include "QXLog/support/QueueFiles.h"

using qxlog::center::kActionQueueFile;
using qxlog::center::kPlayQueueFile;
using qxlog::center::kStartTimeFile;

QXLogCenter::QXLogCenter(std::shared_ptr<qxlog::platform::Env> env)
    : format_(std::make_unique<QXLogMessageFormat>(std::move(env))),
      playQueue_(std::make_unique<qxlog::center::PendingQueue>(this->env(), kPlayQueueFile, false)),
      actionQueue_(
          std::make_unique<qxlog::center::PendingQueue>(this->env(), kActionQueueFile, true)) {}

QXLogCenter::~QXLogCenter() = default;

qxlog::center::PendingQueue& QXLogCenter::actionQueueLocked() {
  return *actionQueue_;
}

qxlog::center::PendingQueue& QXLogCenter::playQueueLocked() {
  return *playQueue_;
}

// Each collection is read from its file on first use. A missing, empty,
// damaged or wrong-typed file gives an empty collection.

QXLogCenter::Dictionary& QXLogCenter::startTimeTableLocked() {
  if (!actionStartTime_) {
    actionStartTime_ = qxlog::support::readDictionary(env(), kStartTimeFile).value_or(Dictionary());
  }
  return *actionStartTime_;
}

QXLogCenter::Array QXLogCenter::playActionLog() {
  std::lock_guard lock(lock_);
  return playQueueLocked().records();
}

void QXLogCenter::setPlayActionLog(Array queue) {
  std::lock_guard lock(lock_);
  playQueueLocked().replace(std::move(queue));
}

QXLogCenter::Array QXLogCenter::actionLog() {
  std::lock_guard lock(lock_);
  return actionQueueLocked().records();
}

void QXLogCenter::setActionLog(Array queue) {
  std::lock_guard lock(lock_);
  actionQueueLocked().replace(std::move(queue));
}

std::optional<QXLogCenter::Dictionary> QXLogCenter::currentPlayHeader() const {
  std::lock_guard lock(lock_);
  return currentPlayHeader_;
}

void QXLogCenter::setCurrentPlayHeader(std::optional<Dictionary> header) {
  std::lock_guard lock(lock_);
  currentPlayHeader_ = std::move(header);
}

QXLogCenter::Dictionary QXLogCenter::actionStartTime() {
  std::lock_guard lock(lock_);
  return startTimeTableLocked();
}

void QXLogCenter::setActionStartTime(Dictionary table) {
  std::lock_guard lock(lock_);
  actionStartTime_ = std::move(table);
}

std::size_t QXLogCenter::playCount() {
  std::lock_guard lock(lock_);
  return playQueueLocked().size();
}

std::size_t QXLogCenter::pendingCount() {
  std::lock_guard lock(lock_);
  return actionQueueLocked().size() + playQueueLocked().size();
}

void QXLogCenter::setDeliveryHandler(DeliveryHandler handler) {
  std::lock_guard lock(handlerMutex_);
  deliveryHandler_ = std::move(handler);
}

void QXLogCenter::reportBatch(BatchOutcome outcome, std::size_t records,
                              const std::string& reason) {
  DeliveryHandler handler;
  {
    std::lock_guard lock(handlerMutex_);
    handler = deliveryHandler_;
  }
  if (!handler) return;
  env().mainQueue()->async(
      [handler, outcome, records, reason] { handler(outcome, records, reason); });
}
