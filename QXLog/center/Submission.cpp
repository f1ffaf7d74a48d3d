// Batch submission: when the pending records go out, the upload of an
// envelope, and what the answer does to the action queue.
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/CenterState.h"
#include "QXLog/center/DeliveryPolicy.h"
#include "QXLog/center/OutgoingUpload.h"
#include "QXLog/center/PendingQueue.h"
#include "QXLog/center/PushTimer.h"
#include "QXLog/center/Upload.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Text.h"

namespace platform = qxlog::platform;
using qxlog::platform::MutexLock;

void QXLogCenter::submitAllLog() {
  policy().submit();
}

void QXLogCenter::submitDescribed() {
  // The envelope, the snapshot and the clearing happen under one hold of the
  // lock, so that a record stored meanwhile is either sent or still queued.
  std::shared_ptr<OutgoingUpload> upload;
  {
    MutexLock lock(state_->mutex);
    qxlog::center::PendingQueue& actions = state_->actionQueueLocked();
    if (actions.empty() && state_->playQueueLocked().empty()) return;
    if (actions.size() > qxlog::center::kMaxBatchRecords) {
      reportBatch(BatchOutcome::kDropped, actions.size(), "backlog over 500 records");
      actions.clear();
      return;
    }
    upload = state_->takeUploadLocked(format().combinationLogOfJson(actions.json()), false);
  }
  if (upload) dispatch(std::move(upload), std::string());
}

QXLogCenter::Dictionary QXLogCenter::combinationStatisticalLog() {
  MutexLock lock(state_->mutex);
  // The records' JSON is kept beside the queue: only records not yet seen are
  // serialised here.
  return format().combinationLogOfJson(state_->actionQueueLocked().json());
}

void QXLogCenter::pushLog(Dictionary envelope, const NullableString& url, bool diagnosis) {
  std::shared_ptr<OutgoingUpload> upload;
  {
    MutexLock lock(state_->mutex);
    upload = state_->takeUploadLocked(std::move(envelope), diagnosis);
  }
  if (upload) dispatch(std::move(upload), url);
}

void QXLogCenter::dispatch(std::shared_ptr<OutgoingUpload> upload, const NullableString& url) {
  upload->envelope = qxlog::center::traceEnvelopeText(env(), std::move(upload->envelope));
  if (url && url->empty()) {
    upload->url = format().pushLogUrl();
  } else {
    upload->url = url;
    upload->announceGzip = true;
  }
  // At least once, the policy keeps diagnoses until they are confirmed.
  if (upload->diagnosis &&
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
    MutexLock lock(state_->mutex);
    reportBatch(BatchOutcome::kConfirmed, upload->snapshot.size(), "");
    describedConfirmed_ += upload->snapshot.size();
    // Records stored while the upload was out go with the confirmation.
    qxlog::center::PendingQueue& actions = state_->actionQueueLocked();
    if (!actions.empty()) {
      reportBatch(BatchOutcome::kDropped, actions.size(),
                  "stored while an upload was out, cleared by its confirmation");
    }
    actions.clear();
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
