#include "QXLog/center/CenterState.h"

#include <string>

#include "QXLog/center/DeliveryPolicy.h"
#include "QXLog/center/Journal.h"
#include "QXLog/center/OutgoingUpload.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Json.h"
#include "QXLog/support/QueueFiles.h"

namespace qxlog::center {

using Outcome = QXLogCenter::BatchOutcome;

CenterState::CenterState(QXLogCenter& center)
    : center_(center),
      playQueue_(std::make_unique<PendingQueue>(center.env(), kPlayQueueFile, false)),
      actionQueue_(std::make_unique<PendingQueue>(center.env(), kActionQueueFile, true)) {}

PendingQueue& CenterState::actionQueueLocked() {
  if (!journalChecked_ && center_.delivery() == QXLogCenter::Delivery::kDescribed) {
    carryJournalLocked();
  }
  return *actionQueue_;
}

// Once per process: records that the at-least-once delivery left in its
// journal (sealed or not) join the described queue, and the journal goes.
void CenterState::carryJournalLocked() {
  journalChecked_ = true;
  platform::Env& env = center_.env();
  if (!Journal::presentIn(env)) return;
  Journal journal(env, nullptr);
  if (std::size_t damaged = journal.open(); damaged != 0) {
    center_.reportBatch(Outcome::kDropped, damaged, "journal damaged");
  }
  for (const std::string& line : journal.takeNotes()) env.consoleWrite(line);
  Array carried = actionQueue_->records();
  for (const Journal::Entry& entry : journal.pending()) {
    if (std::optional<Value> record = serial::parseJson(*entry.payload)) {
      carried.push_back(std::move(*record));
    }
  }
  if (!journal.pending().empty()) actionQueue_->rewrite(std::move(carried));
  journal.removeAll();
}

// A missing, empty, damaged or wrong-typed file gives an empty table.
Dictionary& CenterState::startTimeTableLocked() {
  if (!startTimeTable_) {
    startTimeTable_ = support::readDictionary(center_.env(), kStartTimeFile).value_or(Dictionary());
  }
  return *startTimeTable_;
}

std::shared_ptr<QXLogCenter::OutgoingUpload> CenterState::takeUploadLocked(Dictionary envelope,
                                                                           bool diagnosis) {
  center_.pushLogging_ = true;
  const bool described = center_.delivery() == QXLogCenter::Delivery::kDescribed;
  const std::size_t actions =
      described ? actionQueueLocked().size() : center_.policy().actionCount();
  if (!diagnosis && actions == 0 && playQueueLocked().empty()) return nullptr;
  if (envelope.empty()) return nullptr;
  auto upload = std::make_shared<QXLogCenter::OutgoingUpload>();
  // At least once, the queue is only ever changed by confirmations.
  if (described) {
    if (diagnosis) {
      upload->snapshot = actionQueueLocked().records();
    } else {
      upload->snapshot = actionQueueLocked().take();
      upload->carriesQueue = true;
      center_.describedOut_ += upload->snapshot.size();
      actionQueueLocked().clear();
    }
  }
  upload->envelope = std::move(envelope);
  upload->diagnosis = diagnosis;
  return upload;
}

// At least once, a queue never outgrows its limit: the oldest records make
// room (the journal keeps the action records within it).
void CenterState::storeBoundedLocked(PendingQueue& queue, Dictionary record) {
  if (center_.delivery() == QXLogCenter::Delivery::kAtLeastOnce) {
    std::size_t dropped = queue.makeRoom(center_.queueLimit());
    if (dropped != 0) {
      center_.env().consoleWrite("QXLog: queue limit reached, dropped " + std::to_string(dropped) +
                                 " oldest records");
      center_.reportBatch(Outcome::kDropped, dropped, "queue limit");
    }
  }
  queue.append(std::move(record));
}

}  // namespace qxlog::center
