#include "QXLog/center/DescribedDelivery.h"

#include "QXLog/center/CenterState.h"
#include "QXLog/center/PendingQueue.h"

namespace qxlog::center {

using platform::MutexLock;

void DescribedDelivery::storeAction(Dictionary record) {
  CenterState& state = *center_.state_;
  MutexLock lock(state.mutex);
  state.storeBoundedLocked(state.actionQueueLocked(), std::move(record));
}

std::size_t DescribedDelivery::actionCount() {
  CenterState& state = *center_.state_;
  MutexLock lock(state.mutex);
  return state.actionQueueLocked().size();
}

Array DescribedDelivery::actionRecords() {
  CenterState& state = *center_.state_;
  MutexLock lock(state.mutex);
  return state.actionQueueLocked().records();
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
