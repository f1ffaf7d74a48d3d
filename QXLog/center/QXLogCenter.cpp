#include "QXLog/QXLogCenter.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <thread>

#include "QXLog/center/AtLeastOnceDelivery.h"
#include "QXLog/center/DescribedDelivery.h"
#include "QXLog/center/Journal.h"
#include "QXLog/center/PendingQueue.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Json.h"
#include "QXLog/support/QueueFiles.h"

using qxlog::center::kActionQueueFile;
using qxlog::center::kPlayQueueFile;
using qxlog::center::kStartTimeFile;

QXLogCenter::QXLogCenter(std::shared_ptr<qxlog::platform::Env> env)
    : format_(std::make_unique<QXLogMessageFormat>(std::move(env))),
      playQueue_(std::make_unique<qxlog::center::PendingQueue>(this->env(), kPlayQueueFile, false)),
      actionQueue_(
          std::make_unique<qxlog::center::PendingQueue>(this->env(), kActionQueueFile, true)),
      described_(std::make_unique<qxlog::center::DescribedDelivery>(*this)),
      atLeastOnce_(std::make_unique<qxlog::center::AtLeastOnceDelivery>(*this)) {
  format_->setStartTimeLookup([this](const std::string& key) { return getActionStartTime(key); });
}

QXLogCenter::~QXLogCenter() = default;

qxlog::center::PendingQueue& QXLogCenter::actionQueueLocked() {
  if (!journalChecked_ && delivery() == Delivery::kDescribed) carryJournalLocked();
  return *actionQueue_;
}

// Once per process: records that the at-least-once delivery left in its
// journal (sealed or not) join the described queue, and the journal goes.
void QXLogCenter::carryJournalLocked() {
  journalChecked_ = true;
  if (!qxlog::center::Journal::presentIn(env())) return;
  qxlog::center::Journal journal(env(), nullptr);
  if (std::size_t damaged = journal.open(); damaged != 0) {
    reportBatch(BatchOutcome::kDropped, damaged, "journal damaged");
  }
  for (const std::string& line : journal.takeNotes()) env().consoleWrite(line);
  Array carried = actionQueue_->records();
  for (const qxlog::center::Journal::Entry& entry : journal.pending()) {
    if (std::optional<qxlog::Value> record = qxlog::serial::parseJson(*entry.payload)) {
      carried.push_back(std::move(*record));
    }
  }
  if (!journal.pending().empty()) actionQueue_->rewrite(std::move(carried));
  journal.removeAll();
}

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
  return policy().actionRecords();
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
  env().mainQueue()->async(
      [handler, outcome, records, reason] { handler(outcome, records, reason); });
}
