#include "QXLog/QXLogCenter.h"

#include "QXLog/QXLogHelper.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/support/QueueJson.h"
#include "QXLog/support/QueueXml.h"

using qxlog::kActionQueueFile;
using qxlog::kPlayQueueFile;
using qxlog::kStartTimeFile;

QXLogCenter::QXLogCenter()
    : format_(std::make_unique<QXLogMessageFormat>()),
      actionXml_(std::make_unique<qxlog::support::QueueXml>()),
      playXml_(std::make_unique<qxlog::support::QueueXml>()),
      actionJson_(std::make_unique<qxlog::support::QueueJson>()) {}

QXLogCenter::~QXLogCenter() = default;

// Each collection is read from its file on first use. A missing, empty,
// damaged or wrong-typed file gives an empty collection.
QXLogCenter::Array& QXLogCenter::actionQueueLocked() {
  if (!actionLog_) actionLog_ = QXLogHelper::store(nullptr, kActionQueueFile).value_or(Array());
  return *actionLog_;
}

QXLogCenter::Array& QXLogCenter::playQueueLocked() {
  if (!playActionLog_) {
    playActionLog_ = QXLogHelper::store(nullptr, kPlayQueueFile).value_or(Array());
  }
  return *playActionLog_;
}

QXLogCenter::Dictionary& QXLogCenter::startTimeTableLocked() {
  if (!actionStartTime_) {
    actionStartTime_ = QXLogHelper::storeDict(nullptr, kStartTimeFile).value_or(Dictionary());
  }
  return *actionStartTime_;
}

QXLogCenter::Array QXLogCenter::playActionLog() {
  std::lock_guard lock(lock_);
  return playQueueLocked();
}

void QXLogCenter::setPlayActionLog(Array queue) {
  std::lock_guard lock(lock_);
  playActionLog_ = std::move(queue);
  playXml_->invalidate();
}

QXLogCenter::Array QXLogCenter::actionLog() {
  std::lock_guard lock(lock_);
  return actionQueueLocked();
}

void QXLogCenter::setActionLog(Array queue) {
  std::lock_guard lock(lock_);
  actionLog_ = std::move(queue);
  actionXml_->invalidate();
  actionJson_->invalidate();
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
