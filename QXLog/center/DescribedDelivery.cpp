#include "QXLog/center/DescribedDelivery.h"

#include "QXLog/center/PendingQueue.h"

namespace qxlog::center {

void DescribedDelivery::storeAction(Dictionary record) {
  std::lock_guard lock(center_.lock_);
  center_.storeBounded(center_.actionQueueLocked(), std::move(record));
}

std::size_t DescribedDelivery::actionCount() {
  std::lock_guard lock(center_.lock_);
  return center_.actionQueueLocked().size();
}

Array DescribedDelivery::actionRecords() {
  std::lock_guard lock(center_.lock_);
  return center_.actionQueueLocked().records();
}

void DescribedDelivery::submit() {
  center_.submitDescribed();
}

void DescribedDelivery::flush() {
  center_.submitAllLog();
}

std::size_t DescribedDelivery::unconfirmed() {
  return actionCount() + center_.describedOut_.load();
}

}  // namespace qxlog::center
