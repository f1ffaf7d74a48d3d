// QXLogCenter: the one object that holds what has been recorded but not yet
// sent. It owns the format object, the action queue, the play queue, the play
// header and the start-time table, and mirrors the queues and the table in
// property-list files in the Documents directory.
#ifndef QXLOG_QXLOGCENTER_H_
#define QXLOG_QXLOGCENTER_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/QXLogValue.h"

namespace qxlog {
class CenterRegistry;
namespace support {
class QueueJson;
class QueueXml;
}  // namespace support
namespace platform {
struct HttpResponse;
}
}  // namespace qxlog

class QXLogCenter {
 public:
  using NullableString = qxlog::NullableString;
  using Dictionary = qxlog::Dictionary;
  using Array = qxlog::Array;

  // The single instance, created on first call.
  static QXLogCenter& center();

  ~QXLogCenter();
  QXLogCenter(const QXLogCenter&) = delete;
  QXLogCenter& operator=(const QXLogCenter&) = delete;

  QXLogMessageFormat& format() { return *format_; }

  // The collections. Getters load a queue from its file on first use and
  // return a snapshot; setters replace the collection in memory only.
  Array playActionLog();
  void setPlayActionLog(Array queue);
  Array actionLog();
  void setActionLog(Array queue);
  std::optional<Dictionary> currentPlayHeader() const;
  void setCurrentPlayHeader(std::optional<Dictionary> header);
  Dictionary actionStartTime();
  void setActionStartTime(Dictionary table);

  // Appends a record to its queue, rewrites the queue file, then runs the
  // count check.
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
  // Posts an envelope to `url`, or to the log server when `url` is "".
  void pushLog(Dictionary envelope, const NullableString& url, bool diagnosis);

  // Server settings and the push timer.
  void getLogServerInfo();
  void startTime(int32_t seconds);

 private:
  friend class qxlog::CenterRegistry;
  struct Upload;
  QXLogCenter();

  void send(std::shared_ptr<const Upload> upload);
  void uploadAnswered(std::shared_ptr<const Upload> upload,
                      const qxlog::platform::HttpResponse& response);
  void uploadFailed(const Upload& upload);
  void settingsAnswered(const qxlog::platform::HttpResponse& response);
  void clearActionQueueLocked();

  Array& actionQueueLocked();
  Array& playQueueLocked();
  Dictionary& startTimeTableLocked();
  std::size_t playCount();
  // Records in both queues together, the figure the batch size applies to.
  std::size_t pendingCount();

  // Held while a queue is changed together with its file.
  mutable std::recursive_mutex lock_;
  std::unique_ptr<QXLogMessageFormat> format_;
  std::optional<Array> playActionLog_;
  std::optional<Array> actionLog_;
  std::optional<Dictionary> currentPlayHeader_;
  std::optional<Dictionary> actionStartTime_;
  // The files' XML per record; reset wherever a queue is replaced or cleared.
  std::unique_ptr<qxlog::support::QueueXml> actionXml_;
  std::unique_ptr<qxlog::support::QueueXml> playXml_;
  // The action queue's records' JSON for the envelope; reset with actionXml_.
  std::unique_ptr<qxlog::support::QueueJson> actionJson_;

  std::atomic<bool> pushLogging_{false};
  std::atomic<bool> hasRepeatSendLog_{false};
  std::atomic<bool> hasRepeatRequestLogServer_{false};
};

#endif  // QXLOG_QXLOGCENTER_H_
