// Storing records, the count check that follows each store, and folding of
// the play queue into the play header.
#include <algorithm>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/CenterState.h"
#include "QXLog/center/DeliveryPolicy.h"
#include "QXLog/center/PendingQueue.h"
#include "QXLog/platform/Env.h"

using qxlog::Value;
using qxlog::platform::MutexLock;

namespace {

// The batch test compares as unsigned 64-bit values: a negative batch size
// reads as a huge one and is never reached.
bool reachesBatchSize(std::size_t pending, int64_t limit) {
  return static_cast<uint64_t>(pending) >= static_cast<uint64_t>(limit);
}

}  // namespace

// The count check does not look at the record, so the stored record is moved
// into its queue and the check is handed an empty one.
void QXLogCenter::storeActionLog(Dictionary record) {
  policy().storeAction(std::move(record));
  storeLog(Dictionary());
}

void QXLogCenter::storePlayLog(Dictionary record) {
  {
    MutexLock lock(state_->mutex);
    state_->storeBoundedLocked(state_->playQueueLocked(), std::move(record));
  }
  storeLog(Dictionary());
}

void QXLogCenter::storeLog(const Dictionary& /*record*/) {
  if (!reachesBatchSize(pendingCount(), format().limitLogCount())) return;
  // Pending play records are folded first; the store of the folded header runs
  // this check again with an empty play queue, which then submits. At least
  // once, play records still waiting for a header do not hold actions back.
  bool folds = playCount() != 0;
  if (folds && delivery() == Delivery::kAtLeastOnce) folds = currentPlayHeader().has_value();
  if (folds) {
    makePlayLog();
  } else {
    conditionAndSubmitLog();
  }
}

void QXLogCenter::makePlayLog() {
  Dictionary folded;
  {
    MutexLock lock(state_->mutex);
    qxlog::center::PendingQueue& queue = state_->playQueueLocked();
    const std::optional<Dictionary>& header = state_->playHeaderLocked();
    if (queue.empty() || !header) return;
    folded = *header;
    Array actions;
    if (const Value* earlier = folded.find("p"); earlier && earlier->asArray()) {
      actions = *earlier->asArray();
    }
    Array waiting = queue.take();
    actions.insert(actions.end(), std::make_move_iterator(waiting.begin()),
                   std::make_move_iterator(waiting.end()));
    folded.set("p", Value(std::move(actions)));
    queue.clear();
  }
  storeActionLog(std::move(folded));
}

void QXLogCenter::conditionAndSubmitLog() {
  if (reachesBatchSize(pendingCount(), format().limitLogCount())) submitAllLog();
}
