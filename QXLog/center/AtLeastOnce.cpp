// At-least-once delivery: one batch of the oldest queued records is out at a
// time, and its records leave the queue (memory and file) only when an answer
// "200" confirms it. Records stored meanwhile stay queued for the next batch.
#include <algorithm>
#include <chrono>
#include <cmath>

#include "QXLog/QXLogCenter.h"
#include "QXLog/center/OutgoingUpload.h"
#include "QXLog/center/PendingQueue.h"
#include "QXLog/center/PushTimer.h"
#include "QXLog/center/Upload.h"
#include "QXLog/platform/Env.h"

namespace platform = qxlog::platform;

namespace {

// A refused batch is sent this many more times, then dropped.
constexpr int kMaxRefusals = 2;
constexpr double kFirstBackoffSeconds = 1;
constexpr double kMaxBackoffSeconds = 300;

// 1 s doubling with each failure up to 5 minutes, each wait drawn from the
// upper half of that span so that many hosts do not retry in step.
std::chrono::nanoseconds backoff(int failures, std::minstd_rand& jitter) {
  double span =
      std::min(kFirstBackoffSeconds * std::ldexp(1.0, std::min(failures, 30)), kMaxBackoffSeconds);
  std::uniform_real_distribution<double> share(0.5, 1.0);
  return std::chrono::nanoseconds(static_cast<int64_t>(span * share(jitter) * 1e9));
}

}  // namespace

void QXLogCenter::submitOldestBatch() {
  Dictionary envelope;
  {
    std::lock_guard lock(lock_);
    if (batchOut_ || actionQueueLocked().empty()) return;
    batchRecords_ = std::min(actionQueueLocked().size(), qxlog::center::kMaxBatchRecords);
    envelope = format().combinationLogOfJson(actionQueueLocked().jsonOfFirst(batchRecords_));
    if (envelope.empty()) return;
    batchOut_ = true;
  }
  auto upload = std::make_shared<OutgoingUpload>();
  upload->envelope = qxlog::center::traceEnvelopeText(env(), std::move(envelope));
  upload->url = format().pushLogUrl();
  upload->oldestBatch = true;
  send(std::move(upload));
}

void QXLogCenter::oldestBatchAnswered(const platform::HttpResponse& response) {
  std::optional<qxlog::Value> answer = qxlog::center::acceptedAnswer(response);
  if (!answer) return retryOldestBatch(qxlog::center::failureReason(response));
  if (qxlog::center::confirmsBatch(*answer))
    return oldestBatchSettled(BatchOutcome::kConfirmed, "");
  // Another code refuses the content itself: a few more tries, then it goes.
  std::string reason = qxlog::center::refusalReason(*answer);
  bool retry = false;
  {
    std::lock_guard lock(lock_);
    retry = ++batchRefusals_ <= kMaxRefusals;
  }
  if (retry) return retryOldestBatch(reason);
  oldestBatchSettled(BatchOutcome::kDropped, reason);
}

void QXLogCenter::retryOldestBatch(const std::string& reason) {
  std::chrono::nanoseconds delay{};
  std::size_t records = 0;
  {
    std::lock_guard lock(lock_);
    delay = backoff(batchFailures_++, jitter_);
    records = batchRecords_;
  }
  reportBatch(BatchOutcome::kRetrying, records, reason);
  // The batch stays out until its retry, so that no other upload overtakes it.
  env().mainQueue()->post(
      [this] {
        {
          std::lock_guard lock(lock_);
          batchOut_ = false;
        }
        submitOldestBatch();
      },
      delay);
}

void QXLogCenter::oldestBatchSettled(BatchOutcome outcome, const std::string& reason) {
  {
    std::lock_guard lock(lock_);
    std::size_t settled = batchRecords_;
    actionQueueLocked().removeFirst(settled);
    batchRecords_ = 0;
    batchOut_ = false;
    batchFailures_ = 0;
    batchRefusals_ = 0;
    if (outcome == BatchOutcome::kDropped) {
      env().consoleWrite("QXLog: dropped a batch of " + std::to_string(settled) +
                         " records after " + std::to_string(kMaxRefusals + 1) + " refusals (" +
                         reason + ")");
    }
    reportBatch(outcome, settled, reason);
  }
  if (outcome == BatchOutcome::kConfirmed) {
    startTime(qxlog::center::pushIntervalSeconds(format().push_interval_time()));
  }
  // A backlog keeps going out, oldest first.
  conditionAndSubmitLog();
}
