#include "QXLog/QXLogCenter.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <thread>

#include "QXLog/center/AtLeastOnceDelivery.h"
#include "QXLog/center/CenterState.h"
#include "QXLog/center/DescribedDelivery.h"
#include "QXLog/center/Journal.h"
#include "QXLog/center/PendingQueue.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Json.h"
#include "QXLog/support/QueueFiles.h"

using qxlog::center::CenterState;
using qxlog::platform::MutexLock;

QXLogCenter::QXLogCenter(std::shared_ptr<qxlog::platform::Env> env)
    : format_(std::make_unique<QXLogMessageFormat>(std::move(env))),
      state_(std::make_unique<CenterState>(*this)),
      described_(std::make_unique<qxlog::center::DescribedDelivery>(*this)),
      atLeastOnce_(std::make_unique<qxlog::center::AtLeastOnceDelivery>(*this)) {
  format_->setStartTimeLookup([this](const std::string& key) { return getActionStartTime(key); });
}

QXLogCenter::~QXLogCenter() = default;

qxlog::center::DeliveryPolicy& QXLogCenter::policy() {
  return delivery() == Delivery::kAtLeastOnce ? *atLeastOnce_ : *described_;
}

int QXLogCenter::flush(int64_t timeoutMs) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(std::max<int64_t>(
                                                  0, std::min<int64_t>(timeoutMs, INT32_MAX)));
  qxlog::center::DeliveryPolicy& delivery = policy();
  std::size_t before = delivery.unconfirmed();
  std::size_t confirmedBefore = describedConfirmed_.load();
  delivery.flush();
  std::shared_ptr<qxlog::platform::Executor> main = env().mainQueue();
  for (;;) {
    main->serveHere();
    std::size_t left = delivery.unconfirmed();
    // Described: what went out and no answer confirmed is not coming back.
    if (&delivery == described_.get() && describedOut_.load() == 0) {
      std::size_t confirmed = describedConfirmed_.load() - confirmedBefore;
      left = before - std::min(before, confirmed);
    }
    if (left == 0 || Clock::now() >= deadline) {
      return static_cast<int>(std::min<std::size_t>(left, INT_MAX));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

QXLogCenter::Array QXLogCenter::playActionLog() {
  MutexLock lock(state_->mutex);
  return state_->playQueueLocked().records();
}

void QXLogCenter::setPlayActionLog(Array queue) {
  MutexLock lock(state_->mutex);
  state_->playQueueLocked().replace(std::move(queue));
}

QXLogCenter::Array QXLogCenter::actionLog() {
  return policy().actionRecords();
}

void QXLogCenter::setActionLog(Array queue) {
  MutexLock lock(state_->mutex);
  state_->actionQueueLocked().replace(std::move(queue));
}

std::optional<QXLogCenter::Dictionary> QXLogCenter::currentPlayHeader() const {
  MutexLock lock(state_->mutex);
  return state_->playHeaderLocked();
}

void QXLogCenter::setCurrentPlayHeader(std::optional<Dictionary> header) {
  MutexLock lock(state_->mutex);
  state_->playHeaderLocked() = std::move(header);
}

QXLogCenter::Dictionary QXLogCenter::actionStartTime() {
  MutexLock lock(state_->mutex);
  return state_->startTimeTableLocked();
}

void QXLogCenter::setActionStartTime(Dictionary table) {
  MutexLock lock(state_->mutex);
  state_->setStartTimeTableLocked(std::move(table));
}

std::size_t QXLogCenter::playCount() {
  MutexLock lock(state_->mutex);
  return state_->playQueueLocked().size();
}

std::size_t QXLogCenter::pendingCount() {
  return policy().actionCount() + playCount();
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
  // The executor may be the host's: under the center's lock the post waits
  // for the lock's release.
  qxlog::platform::AfterUnlock::runOrDefer([this, handler, outcome, records, reason] {
    env().mainQueue()->async(
        [handler, outcome, records, reason] { handler(outcome, records, reason); });
  });
}
