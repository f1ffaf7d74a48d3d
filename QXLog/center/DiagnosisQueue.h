// At least once, diagnosis uploads (recordDiagnosLog, recordDiagnosCompleteLog
// and diagnosis behaviour records) are kept in "QXLogDiagnoses.json" until an
// answer "200" confirms them, one out at a time, oldest first. Answers are
// taken by kind as for batches: transient ones are retried with backoff (1 s
// doubling to 5 minutes, or a bounded "Retry-After"), a refused diagnosis is
// tried three times and then dropped. Each outcome is reported to the delivery
// handler as one record. At most kMaxKept are kept; beyond them the oldest is
// dropped. The file is rewritten whole on every change (diagnoses are rare)
// and read once, bounded by kMaxFileBytes.
//
// Thread-safe. Answers are handled on the main queue; no host callback runs
// under the queue's lock.
#ifndef QXLOG_CENTER_DIAGNOSISQUEUE_H_
#define QXLOG_CENTER_DIAGNOSISQUEUE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <string_view>

#include "QXLog/QXLogCenter.h"
#include "QXLog/center/RetryBackoff.h"
#include "QXLog/center/ThreadAnnotations.h"

namespace qxlog::center {

inline constexpr std::string_view kDiagnosisQueueFile = "QXLogDiagnoses.json";

class DiagnosisQueue {
 public:
  static constexpr std::size_t kMaxKept = 200;
  static constexpr std::size_t kMaxFileBytes = 16 << 20;

  explicit DiagnosisQueue(QXLogCenter& center);

  // Keeps one diagnosis upload (its envelope, without "log_data_str") and
  // sends it when nothing else is out.
  void keep(const Dictionary& envelope, const std::string& url, bool announceGzip) EXCLUDES(mutex_);
  // Sends what an earlier process left, if nothing is out.
  void resume() EXCLUDES(mutex_);
  std::size_t count() EXCLUDES(mutex_);

  // The kept diagnoses of a "QXLogDiagnoses.json" text, oldest first: a JSON
  // array of {"url", "gzip", "envelope"}. Entries without an "envelope"
  // dictionary are skipped; at most kMaxKept are taken. Anything else reads
  // as none. The JSON nesting is bounded by serial::kMaxJsonDepth.
  static std::deque<Dictionary> parseKept(std::string_view json);
  // The text parseKept reads back: the same entries, in order.
  static std::string encodeKept(const std::deque<Dictionary>& kept);

 private:
  void openLocked() REQUIRES(mutex_);
  void saveLocked() REQUIRES(mutex_);
  void sendNext() EXCLUDES(mutex_);
  void answered(uint64_t generation, const platform::HttpResponse& response) EXCLUDES(mutex_);

  QXLogCenter& center_;
  Mutex mutex_;
  bool opened_ GUARDED_BY(mutex_) = false;
  // Each kept as {"url", "gzip", "envelope"}.
  std::deque<Dictionary> kept_ GUARDED_BY(mutex_);
  bool out_ GUARDED_BY(mutex_) = false;
  // The front's request is out and its answer not yet taken.
  bool inFlight_ GUARDED_BY(mutex_) = false;
  // Generations of diagnoses dropped at the limit while their request was
  // out: their answer is reported, as confirmed or dropped.
  std::set<uint64_t> leftOut_ GUARDED_BY(mutex_);
  int failures_ GUARDED_BY(mutex_) = 0;
  int refusals_ GUARDED_BY(mutex_) = 0;
  // Changes when the front settles, so that a stale answer does nothing.
  uint64_t generation_ GUARDED_BY(mutex_) = 0;
  RetryBackoff backoff_ GUARDED_BY(mutex_);
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_DIAGNOSISQUEUE_H_
