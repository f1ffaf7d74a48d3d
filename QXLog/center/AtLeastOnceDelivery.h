// At-least-once delivery: the action records live in a journal (Journal.h)
// until an answer "200" confirms the upload that carried them. One batch of
// the oldest records is out at a time; it is cut and sealed once, on the
// global queue, and kept in "QXLogJournal.inflight" so that every attempt,
// also after a restart, posts the same "log_data" (with the day's token).
//
// Answers by kind (judgeAnswer): no answer, 408, 429 and 5xx are retried with
// backoff (1 s doubling to 5 minutes; a "Retry-After" on 429 and 503 is
// waited instead, up to 5 minutes). A refused batch of more than one record
// is split: its first half is sealed and sent on its own, then the rest, and
// so on down to the record that is refused, so that one bad record costs
// that record alone. A single refused record is tried three times and then
// dropped with the refusal as reason. Once three records in a row were
// dropped that way (a wrong key or token refuses everything), refused batches
// are no longer split but dropped whole after three tries, until an upload is
// confirmed again.
//
// Beyond the queue limit the oldest records are dropped. Switching from the
// described delivery carries its queue file's records into the journal once.
//
// Thread-safe. The reporting thread only frames and appends the record.
// Answers are handled on the main queue. No host callback runs under the
// policy's lock: delivery reports go through the center, which posts them to
// the main queue.
#ifndef QXLOG_CENTER_ATLEASTONCEDELIVERY_H_
#define QXLOG_CENTER_ATLEASTONCEDELIVERY_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/center/DeliveryPolicy.h"
#include "QXLog/center/DiagnosisQueue.h"
#include "QXLog/center/Journal.h"
#include "QXLog/center/RetryBackoff.h"
#include "QXLog/center/SealedBatch.h"
#include "QXLog/center/ThreadAnnotations.h"

namespace qxlog::center {

class AtLeastOnceDelivery final : public DeliveryPolicy {
 public:
  explicit AtLeastOnceDelivery(QXLogCenter& center);
  ~AtLeastOnceDelivery() override;

  void storeAction(Dictionary record) override EXCLUDES(mutex_);
  std::size_t actionCount() override EXCLUDES(mutex_);
  Array actionRecords() override EXCLUDES(mutex_);
  void submit() override EXCLUDES(mutex_);
  void flush() override EXCLUDES(mutex_);
  std::size_t unconfirmed() override EXCLUDES(mutex_);
  // Diagnoses are kept and delivered at least once as well (DiagnosisQueue).
  bool keepDiagnosis(const Dictionary& envelope, const std::string& url,
                     bool announceGzip) override;

 private:
  struct Report {
    QXLogCenter::BatchOutcome outcome;
    std::size_t records;
    std::string reason;
  };
  // What is told outside the lock: delivery reports and console lines, and
  // whether the described queue file, carried into the journal, goes.
  struct Reports {
    std::vector<Report> reports;
    std::vector<std::string> lines;
    bool removeQueueFile = false;
  };

  void openLocked(Reports& reports) REQUIRES(mutex_);
  // `batch` is the batch size: the limit is raised to hold two batches (one
  // out, one gathering), with one console line.
  void makeRoomLocked(Reports& reports, std::size_t batch) REQUIRES(mutex_);
  void dropSealedLocked() REQUIRES(mutex_);
  // Cuts the oldest records into a batch and seals it; on the global queue.
  void seal(uint64_t generation) EXCLUDES(mutex_);
  void send(const SealedBatch& batch, uint64_t generation) EXCLUDES(mutex_);
  void answered(uint64_t generation, const platform::HttpResponse& response) EXCLUDES(mutex_);
  void retry(const std::string& reason, int64_t retryAfterSeconds) EXCLUDES(mutex_);
  // Takes the refused sealed batch back unsettled; its first half goes next.
  void splitLocked() REQUIRES(mutex_);
  void settle(QXLogCenter::BatchOutcome outcome, const std::string& reason) EXCLUDES(mutex_);
  void tell(const Reports& reports) EXCLUDES(mutex_);
  std::string inFlightPath() const;

  QXLogCenter& center_;
  const std::shared_ptr<platform::DurableFlush> durable_;
  Mutex mutex_;
  Journal journal_ GUARDED_BY(mutex_);
  bool opened_ GUARDED_BY(mutex_) = false;
  // The batch that is out or waiting for its next attempt.
  std::optional<SealedBatch> sealed_ GUARDED_BY(mutex_);
  // A batch is being cut and sealed on the global queue.
  bool sealing_ GUARDED_BY(mutex_) = false;
  // The sealed batch's upload is out, or its retry is waiting.
  bool out_ GUARDED_BY(mutex_) = false;
  // Everything kept goes out, whatever the batch size, until nothing is left.
  bool flushing_ GUARDED_BY(mutex_) = false;
  int failures_ GUARDED_BY(mutex_) = 0;
  int refusals_ GUARDED_BY(mutex_) = 0;
  // After a split: how many of the oldest pending records hold a refused
  // one, and the most records a batch carries until they are settled.
  std::size_t suspect_ GUARDED_BY(mutex_) = 0;
  std::size_t piece_ GUARDED_BY(mutex_) = 0;
  // Single records dropped as refused since the last confirmation; from
  // kRefusedInARow on, refused batches are not split.
  int refusedInARow_ GUARDED_BY(mutex_) = 0;
  // Changes whenever the sealed batch settles or is dropped: answers and
  // seals of an older generation are stale.
  uint64_t generation_ GUARDED_BY(mutex_) = 0;
  // The sealed batch waits for its retry; a flush sends it at once instead.
  bool waitingRetry_ GUARDED_BY(mutex_) = false;
  // Changes when a waiting retry is overtaken (by a flush) or moot.
  uint64_t retryTicket_ GUARDED_BY(mutex_) = 0;
  // The sealed batch's request is out and its answer not yet taken.
  bool inFlight_ GUARDED_BY(mutex_) = false;
  // Sealed batches dropped at the queue limit while their upload was out, by
  // generation: their answer decides whether they count as confirmed or
  // dropped. At most one entry per upload still out.
  std::map<uint64_t, std::size_t> leftOut_ GUARDED_BY(mutex_);
  // The queue limit last raised to hold two batches, told once.
  std::size_t raisedLimit_ GUARDED_BY(mutex_) = 0;
  RetryBackoff backoff_ GUARDED_BY(mutex_);
  DiagnosisQueue diagnoses_;
  // Diagnoses an earlier process left go out at the policy's first use.
  std::atomic<bool> diagnosesResumed_{false};
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_ATLEASTONCEDELIVERY_H_
