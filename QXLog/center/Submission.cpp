// Batch submission: when the pending records go out, the upload of an
// envelope, and what the answer does to the action queue.
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/PushTimer.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/center/Upload.h"
#include "QXLog/platform/Console.h"
#include "QXLog/platform/Dispatch.h"
#include "QXLog/platform/Text.h"
#include "QXLog/support/QueueJson.h"
#include "QXLog/support/QueueXml.h"

namespace platform = qxlog::platform;

namespace {

// A backlog longer than this is discarded rather than sent.
constexpr std::size_t kMaxBatchRecords = 500;

}  // namespace

// Everything an upload's completion needs: what was sent, where, and the
// records to restore if the request fails.
struct QXLogCenter::Upload {
  Dictionary envelope;
  NullableString url;  // resolved; nil when no URL was known
  bool announceGzip = false;
  bool diagnosis = false;
  Array snapshot;
};

void QXLogCenter::clearActionQueueLocked() {
  actionQueueLocked().clear();
  actionXml_->invalidate();
  actionJson_->invalidate();
  QXLogHelper::removePlist(qxlog::kActionQueueFile);
}

void QXLogCenter::submitAllLog() {
  // The envelope, the snapshot and the clearing happen under one hold of the
  // lock, so that a record stored meanwhile is either sent or still queued.
  std::lock_guard lock(lock_);
  if (actionQueueLocked().empty() && playQueueLocked().empty()) return;
  if (actionQueueLocked().size() <= kMaxBatchRecords) {
    pushLog(combinationStatisticalLog(), std::string(), false);
  } else {
    clearActionQueueLocked();
  }
}

QXLogCenter::Dictionary QXLogCenter::combinationStatisticalLog() {
  std::lock_guard lock(lock_);
  // The records' JSON is kept beside the queue: only records not yet seen are
  // serialised here.
  return format().combinationLogOfJson(actionJson_->textFor(actionQueueLocked()));
}

void QXLogCenter::pushLog(Dictionary envelope, const NullableString& url, bool diagnosis) {
  auto upload = std::make_shared<Upload>();
  {
    std::lock_guard lock(lock_);
    pushLogging_ = true;
    if (!diagnosis && actionQueueLocked().empty() && playQueueLocked().empty()) return;
    if (envelope.empty()) return;
    // An ordinary batch leaves the queue when its request starts; a failure
    // restores it from the snapshot.
    if (diagnosis) {
      upload->snapshot = actionQueueLocked();
    } else {
      upload->snapshot = std::move(actionQueueLocked());
      clearActionQueueLocked();
    }
  }
  const qxlog::Value* text = envelope.find("log_data_str");
  platform::consoleWrite("Ostra->LogContent:" +
                         (text != nullptr ? platform::describe(*text) : std::string("(null)")));
  envelope.erase("log_data_str");
  upload->envelope = std::move(envelope);
  upload->diagnosis = diagnosis;
  if (url && url->empty()) {
    upload->url = format().pushLogUrl();
  } else {
    upload->url = url;
    upload->announceGzip = true;
  }
  send(std::move(upload));
}

void QXLogCenter::send(std::shared_ptr<const Upload> upload) {
  platform::HttpRequest request =
      qxlog::makeUploadRequest(upload->envelope, upload->url.value_or(""), upload->announceGzip);
  platform::globalQueue()->async([this, upload, request = std::move(request)] {
    platform::HttpResponse response = platform::performHttp(request);
    // Answers are handled on the main queue, one at a time.
    platform::mainQueue()->async(
        [this, upload, response = std::move(response)] { uploadAnswered(upload, response); });
  });
}

void QXLogCenter::uploadAnswered(std::shared_ptr<const Upload> upload,
                                 const platform::HttpResponse& response) {
  std::optional<qxlog::Value> answer = qxlog::acceptedAnswer(response);
  if (!answer) return uploadFailed(*upload);
  pushLogging_ = false;
  hasRepeatSendLog_ = false;
  // Any code but "200" drops the batch: it left the queue when it was sent.
  if (!qxlog::confirmsBatch(*answer)) return;
  if (!upload->diagnosis) {
    std::lock_guard lock(lock_);
    clearActionQueueLocked();
  }
  startTime(qxlog::pushIntervalSeconds(format().push_interval_time()));
}

void QXLogCenter::uploadFailed(const Upload& upload) {
  pushLogging_ = false;
  // One immediate repeat; further failures are dropped until some upload
  // completes at the HTTP level again.
  if (hasRepeatSendLog_.exchange(true)) return;
  setActionLog(upload.snapshot);
  pushLog(upload.envelope, upload.url, upload.diagnosis);
}
