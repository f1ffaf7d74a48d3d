// Batch submission: when the pending records go out, the upload of an
// envelope, and what the answer does to the action queue.
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/DeliveryPolicy.h"
#include "QXLog/center/OutgoingUpload.h"
#include "QXLog/center/PendingQueue.h"
#include "QXLog/center/PushTimer.h"
#include "QXLog/center/Upload.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Text.h"

namespace platform = qxlog::platform;

void QXLogCenter::clearActionQueueLocked() {
  actionQueueLocked().clear();
}

void QXLogCenter::submitAllLog() {
  policy().submit();
}

void QXLogCenter::submitDescribed() {
  // The envelope, the snapshot and the clearing happen under one hold of the
  // lock, so that a record stored meanwhile is either sent or still queued.
  std::lock_guard lock(lock_);
  if (actionQueueLocked().empty() && playQueueLocked().empty()) return;
  if (actionQueueLocked().size() <= qxlog::center::kMaxBatchRecords) {
    pushLog(combinationStatisticalLog(), std::string(), false);
  } else {
    reportBatch(BatchOutcome::kDropped, actionQueueLocked().size(), "backlog over 500 records");
    clearActionQueueLocked();
  }
}

QXLogCenter::Dictionary QXLogCenter::combinationStatisticalLog() {
  std::lock_guard lock(lock_);
  // The records' JSON is kept beside the queue: only records not yet seen are
  // serialised here.
  return format().combinationLogOfJson(actionQueueLocked().json());
}

void QXLogCenter::pushLog(Dictionary envelope, const NullableString& url, bool diagnosis) {
  auto upload = std::make_shared<OutgoingUpload>();
  {
    std::lock_guard lock(lock_);
    pushLogging_ = true;
    if (!diagnosis && policy().actionCount() == 0 && playQueueLocked().empty()) return;
    if (envelope.empty()) return;
    // An ordinary batch leaves the queue when its request starts; a failure
    // restores it from the snapshot.
    // At least once, the queue is only ever changed by confirmations.
    if (delivery() == Delivery::kDescribed) {
      if (diagnosis) {
        upload->snapshot = actionQueueLocked().records();
      } else {
        upload->snapshot = actionQueueLocked().take();
        upload->carriesQueue = true;
        describedOut_ += upload->snapshot.size();
        clearActionQueueLocked();
      }
    }
  }
  upload->envelope = qxlog::center::traceEnvelopeText(env(), std::move(envelope));
  upload->diagnosis = diagnosis;
  if (url && url->empty()) {
    upload->url = format().pushLogUrl();
  } else {
    upload->url = url;
    upload->announceGzip = true;
  }
  // At least once, the policy keeps diagnoses until they are confirmed.
  if (diagnosis &&
      policy().keepDiagnosis(upload->envelope, upload->url.value_or(""), upload->announceGzip)) {
    return;
  }
  send(std::move(upload));
}

void QXLogCenter::send(std::shared_ptr<const OutgoingUpload> upload) {
  platform::HttpRequest request = qxlog::center::makeUploadRequest(
      upload->envelope, upload->url.value_or(""), upload->announceGzip);
  env().globalQueue()->async([this, upload, request = std::move(request)] {
    platform::HttpResponse response = env().performHttp(request);
    // Answers are handled on the main queue, one at a time.
    env().mainQueue()->async(
        [this, upload, response = std::move(response)] { uploadAnswered(upload, response); });
  });
}

void QXLogCenter::uploadAnswered(std::shared_ptr<const OutgoingUpload> upload,
                                 const platform::HttpResponse& response) {
  if (upload->carriesQueue) describedOut_ -= upload->snapshot.size();
  std::optional<qxlog::Value> answer = qxlog::center::acceptedAnswer(response);
  if (!answer) return uploadFailed(*upload, qxlog::center::failureReason(response));
  pushLogging_ = false;
  hasRepeatSendLog_ = false;
  // Any code but "200" drops the batch: it left the queue when it was sent.
  if (!qxlog::center::confirmsBatch(*answer)) {
    if (upload->carriesQueue) {
      reportBatch(BatchOutcome::kDropped, upload->snapshot.size(),
                  qxlog::center::refusalReason(*answer));
    }
    return;
  }
  if (upload->carriesQueue) {
    std::lock_guard lock(lock_);
    reportBatch(BatchOutcome::kConfirmed, upload->snapshot.size(), "");
    describedConfirmed_ += upload->snapshot.size();
    // Records stored while the upload was out go with the confirmation.
    if (!actionQueueLocked().empty()) {
      reportBatch(BatchOutcome::kDropped, actionQueueLocked().size(),
                  "stored while an upload was out, cleared by its confirmation");
    }
    clearActionQueueLocked();
  }
  startTime(qxlog::center::pushIntervalSeconds(format().push_interval_time()));
}

void QXLogCenter::uploadFailed(const OutgoingUpload& upload, const std::string& reason) {
  pushLogging_ = false;
  // One immediate repeat; further failures are dropped until some upload
  // completes at the HTTP level again.
  if (hasRepeatSendLog_.exchange(true)) {
    if (upload.carriesQueue) {
      reportBatch(BatchOutcome::kDropped, upload.snapshot.size(), "failed again: " + reason);
    }
    return;
  }
  if (upload.carriesQueue) reportBatch(BatchOutcome::kRetrying, upload.snapshot.size(), reason);
  if (delivery() == Delivery::kDescribed) setActionLog(upload.snapshot);
  pushLog(upload.envelope, upload.url, upload.diagnosis);
}
