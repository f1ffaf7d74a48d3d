// Storing records, the count check that follows each store, and folding of
// the play queue into the play header.
#include <algorithm>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/DeliveryPolicy.h"
#include "QXLog/center/PendingQueue.h"
#include "QXLog/platform/Env.h"

using qxlog::Value;

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
    std::lock_guard lock(lock_);
    storeBounded(playQueueLocked(), std::move(record));
  }
  storeLog(Dictionary());
}

// At least once, the play queue never outgrows its limit: the oldest records
// make room (the journal keeps the action records within it).
void QXLogCenter::storeBounded(qxlog::center::PendingQueue& queue, Dictionary record) {
  if (delivery() == Delivery::kAtLeastOnce) {
    std::size_t dropped = queue.makeRoom(queueLimit());
    if (dropped != 0) {
      env().consoleWrite("QXLog: queue limit reached, dropped " + std::to_string(dropped) +
                         " oldest records");
      reportBatch(BatchOutcome::kDropped, dropped, "queue limit");
    }
  }
  queue.append(std::move(record));
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
    std::lock_guard lock(lock_);
    qxlog::center::PendingQueue& queue = playQueueLocked();
    if (queue.empty() || !currentPlayHeader_) return;
    folded = *currentPlayHeader_;
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
  QXLogCenter::center().storeActionLog(std::move(folded));
}

void QXLogCenter::conditionAndSubmitLog() {
  if (reachesBatchSize(pendingCount(), format().limitLogCount())) submitAllLog();
}
