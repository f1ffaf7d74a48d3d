// Storing records, the count check that follows each store, and folding of
// the play queue into the play header.
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/support/QueueJson.h"
#include "QXLog/support/QueueXml.h"

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
  {
    std::lock_guard lock(lock_);
    Array& queue = actionQueueLocked();
    queue.emplace_back(std::move(record));
    qxlog::support::writeQueueFile(actionXml_->documentFor(queue), qxlog::kActionQueueFile);
    actionJson_->textFor(queue);
  }
  storeLog(Dictionary());
}

void QXLogCenter::storePlayLog(Dictionary record) {
  {
    std::lock_guard lock(lock_);
    Array& queue = playQueueLocked();
    queue.emplace_back(std::move(record));
    qxlog::support::writeQueueFile(playXml_->documentFor(queue), qxlog::kPlayQueueFile);
  }
  storeLog(Dictionary());
}

void QXLogCenter::storeLog(const Dictionary& /*record*/) {
  if (!reachesBatchSize(pendingCount(), format().limitLogCount())) return;
  // Pending play records are folded first; the store of the folded header runs
  // this check again with an empty play queue, which then submits.
  if (playCount() != 0) {
    makePlayLog();
  } else {
    conditionAndSubmitLog();
  }
}

void QXLogCenter::makePlayLog() {
  Dictionary folded;
  {
    std::lock_guard lock(lock_);
    Array& queue = playQueueLocked();
    if (queue.empty() || !currentPlayHeader_) return;
    folded = *currentPlayHeader_;
    Array actions;
    if (const Value* earlier = folded.find("p"); earlier && earlier->asArray()) {
      actions = *earlier->asArray();
    }
    actions.insert(actions.end(), std::make_move_iterator(queue.begin()),
                   std::make_move_iterator(queue.end()));
    folded.set("p", Value(std::move(actions)));
    queue.clear();
    playXml_->invalidate();
    QXLogHelper::removePlist(qxlog::kPlayQueueFile);
  }
  QXLogCenter::center().storeActionLog(std::move(folded));
}

void QXLogCenter::conditionAndSubmitLog() {
  if (reachesBatchSize(pendingCount(), format().limitLogCount())) submitAllLog();
}
