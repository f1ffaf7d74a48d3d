// What the log center's lock guards: the two pending queues, the play header
// and the start-time table, each changed together with its file. The lock is
// plain (never taken twice by one thread) and clang's thread-safety analysis
// checks every use. Held through platform::MutexLock, whose console lines and
// executor posts wait for the release, so no host code runs under it.
#ifndef QXLOG_CENTER_CENTERSTATE_H_
#define QXLOG_CENTER_CENTERSTATE_H_

#include <memory>
#include <optional>

#include "QXLog/QXLogCenter.h"
#include "QXLog/center/PendingQueue.h"
#include "QXLog/platform/Mutex.h"

namespace qxlog::center {

class CenterState {
 public:
  explicit CenterState(QXLogCenter& center);

  platform::Mutex mutex;

  // The action queue; in the described delivery, its first use also takes in
  // the records an at-least-once journal left behind.
  PendingQueue& actionQueueLocked() QXLOG_REQUIRES(mutex);
  PendingQueue& playQueueLocked() QXLOG_REQUIRES(mutex) { return *playQueue_; }
  // Read from its file on first use.
  Dictionary& startTimeTableLocked() QXLOG_REQUIRES(mutex);
  std::optional<Dictionary>& playHeaderLocked() QXLOG_REQUIRES(mutex) { return playHeader_; }
  void setStartTimeTableLocked(Dictionary table) QXLOG_REQUIRES(mutex) {
    startTimeTable_ = std::move(table);
  }
  // What an upload of `envelope` takes from the queues; null when there is
  // nothing to send. Described, an ordinary batch's records leave the queue
  // here, kept in the upload to be restored if the request fails.
  std::shared_ptr<QXLogCenter::OutgoingUpload> takeUploadLocked(Dictionary envelope, bool diagnosis)
      QXLOG_REQUIRES(mutex);
  // Appends to `queue`; at least once, the oldest records make room first.
  void storeBoundedLocked(PendingQueue& queue, Dictionary record) QXLOG_REQUIRES(mutex);

 private:
  void carryJournalLocked() QXLOG_REQUIRES(mutex);

  QXLogCenter& center_;
  const std::unique_ptr<PendingQueue> playQueue_ QXLOG_GUARDED_BY(mutex);
  const std::unique_ptr<PendingQueue> actionQueue_ QXLOG_GUARDED_BY(mutex);
  std::optional<Dictionary> playHeader_ QXLOG_GUARDED_BY(mutex);
  std::optional<Dictionary> startTimeTable_ QXLOG_GUARDED_BY(mutex);
  bool journalChecked_ QXLOG_GUARDED_BY(mutex) = false;
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_CENTERSTATE_H_
