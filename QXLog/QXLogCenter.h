// QXLogCenter: the one object that holds what has been recorded but not yet
// sent. It owns the format object, the action queue, the play queue, the play
// header and the start-time table, and mirrors the queues and the table in
// property-list files in the Documents directory.
#ifndef QXLOG_QXLOGCENTER_H_
#define QXLOG_QXLOGCENTER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/QXLogValue.h"

namespace qxlog {
namespace center {
class AtLeastOnceDelivery;
class CenterState;
class DiagnosisQueue;
class CenterRegistry;
class DeliveryPolicy;
class DescribedDelivery;
class PendingQueue;
}  // namespace center
namespace platform {
class Env;
struct HttpResponse;
}  // namespace platform
}  // namespace qxlog

class QXLogCenter {
 public:
  using NullableString = qxlog::NullableString;
  using Dictionary = qxlog::Dictionary;
  using Array = qxlog::Array;

  // The single instance, created on first call on the system's environment
  // (CenterRegistry gives it another before then). Every member may be called
  // from any thread; concurrent first callers all get the same object.
  static QXLogCenter& center();

  ~QXLogCenter();
  QXLogCenter(const QXLogCenter&) = delete;
  QXLogCenter& operator=(const QXLogCenter&) = delete;

  QXLogMessageFormat& format() { return *format_; }
  // What the center takes from the operating system: clocks, queues, HTTP,
  // files and the Documents directory, console.
  qxlog::platform::Env& env() const { return format_->env(); }

  // The collections. Getters load a queue from its file on first use (a
  // bounded read that never blocks on the file) and return a snapshot;
  // setters replace the collection in memory only.
  Array playActionLog();
  void setPlayActionLog(Array queue);
  Array actionLog();
  void setActionLog(Array queue);
  std::optional<Dictionary> currentPlayHeader() const;
  void setCurrentPlayHeader(std::optional<Dictionary> header);
  Dictionary actionStartTime();
  void setActionStartTime(Dictionary table);

  // Appends a record to its queue and rewrites the queue file under the
  // center's lock, before returning; then runs the count check outside the
  // lock, which may submit.
  void storeActionLog(Dictionary record);
  void storePlayLog(Dictionary record);
  // The count check: at the batch size, folds pending play records or submits.
  void storeLog(const Dictionary& record);
  // Folds the play queue under "p" into a copy of the play header and stores
  // that copy as an action record.
  void makePlayLog();

  // The start-time table: the host marks an item's start; the download record
  // reads it back.
  void saveActionStartTime(const std::string& key);
  NullableString getActionStartTime(const std::string& key);

  // Submission and upload.
  void conditionAndSubmitLog();
  void submitAllLog();
  Dictionary combinationStatisticalLog();
  // Posts an envelope to `url`, or to the log server when `url` is "". The
  // envelope is traced on the calling thread; the exchange runs on the global
  // queue and its answer is handled on the main queue.
  void pushLog(Dictionary envelope, const NullableString& url, bool diagnosis);

  // Sends what is queued now, whatever the batch size, and waits up to
  // `timeoutMs` for the answers, serving the main queue meanwhile when the
  // calling thread is the one that serves it. Returns how many records are
  // still not confirmed (0: everything arrived). In the described delivery it
  // is one submitAllLog now, with that delivery's usual outcome. For a host's
  // exit path; not to be called from a delivery handler.
  int flush(int64_t timeoutMs);

  // Server settings and the push timer. The settings exchange runs on the
  // global queue, which stores the answer; the timer fires on the global
  // queue and submits on the main queue.
  void getLogServerInfo();
  void startTime(int32_t seconds);
  // Runs each time the push timer runs out, on the main queue, before the
  // pending play records are folded and submitted; no lock of the library is
  // held and it may store records (the play API sends its plays' parts
  // there). An empty one removes it.
  void setPushTimerHandler(std::function<void()> handler);

  // Delivery. kDescribed (the default) sends and clears as existing log
  // servers expect. kAtLeastOnce keeps each record in an append-only journal
  // until an answer "200" confirms the upload that carried it: one upload at
  // a time, oldest records first in batches of at most 500, each batch sealed
  // once and posted with the same bytes on every attempt, transport failures
  // retried with backoff, a refused batch retried twice and then dropped.
  // Chosen before the first report; the records pending in the other mode's
  // files are carried over once.
  enum class Delivery { kDescribed = 0, kAtLeastOnce = 1 };
  void setDelivery(Delivery delivery) { delivery_ = delivery; }
  Delivery delivery() const { return delivery_; }
  // At-least-once only: the most records each queue holds; beyond it the
  // oldest are dropped, counted and traced. 50 000 unless set.
  void setQueueLimit(std::size_t limit) { queueLimit_ = limit; }
  std::size_t queueLimit() const { return queueLimit_; }

  // What became of a batch, told on the main queue in both modes.
  enum class BatchOutcome { kConfirmed = 0, kRetrying = 1, kDropped = 2 };
  using DeliveryHandler =
      std::function<void(BatchOutcome outcome, std::size_t records, const std::string& reason)>;
  // An empty handler stops the reports. The handler runs on the main queue,
  // as a task of its own with no lock of the library held, and may call back
  // into the library.
  void setDeliveryHandler(DeliveryHandler handler);

 private:
  friend class qxlog::center::CenterRegistry;
  friend class qxlog::center::CenterState;
  friend class qxlog::center::DescribedDelivery;
  friend class qxlog::center::AtLeastOnceDelivery;
  friend class qxlog::center::DiagnosisQueue;
  struct OutgoingUpload;

  explicit QXLogCenter(std::shared_ptr<qxlog::platform::Env> env);

  // Traces the envelope, resolves the URL and posts it (at least once, a
  // diagnosis is kept for its own delivery instead). Takes no lock.
  void dispatch(std::shared_ptr<OutgoingUpload> upload, const NullableString& url);
  void send(std::shared_ptr<const OutgoingUpload> upload);
  void uploadAnswered(std::shared_ptr<const OutgoingUpload> upload,
                      const qxlog::platform::HttpResponse& response);
  void uploadFailed(const OutgoingUpload& upload, const std::string& reason);
  void settingsAnswered(const qxlog::platform::HttpResponse& response);
  // Tells the delivery handler on the main queue; under the center's lock,
  // the post waits for the lock's release.
  void reportBatch(BatchOutcome outcome, std::size_t records, const std::string& reason);
  qxlog::center::DeliveryPolicy& policy();
  // The upload envelope of records given as a JSON array.
  Dictionary envelopeOfJson(std::string_view recordsJson) {
    return format().combinationLogOfJson(recordsJson);
  }
  // The described submission, as submitAllLog has always done it.
  void submitDescribed();
  std::size_t playCount();
  // Records in both queues together, the figure the batch size applies to.
  std::size_t pendingCount();

  std::unique_ptr<QXLogMessageFormat> format_;
  // The queues, the play header and the start-time table, and the lock that
  // guards them.
  std::unique_ptr<qxlog::center::CenterState> state_;
  std::atomic<Delivery> delivery_{Delivery::kDescribed};
  std::atomic<std::size_t> queueLimit_{50000};
  std::mutex handlerMutex_;
  DeliveryHandler deliveryHandler_;
  std::function<void()> pushTimerHandler_;  // under handlerMutex_
  std::unique_ptr<qxlog::center::DeliveryPolicy> described_;
  std::unique_ptr<qxlog::center::DeliveryPolicy> atLeastOnce_;
  // Described delivery: records in uploads not yet answered, and records
  // confirmed so far, for flush.
  std::atomic<std::size_t> describedOut_{0};
  std::atomic<std::size_t> describedConfirmed_{0};

  std::atomic<bool> pushLogging_{false};
  std::atomic<bool> hasRepeatSendLog_{false};
  std::atomic<bool> hasRepeatRequestLogServer_{false};
};

#endif  // QXLOG_QXLOGCENTER_H_
