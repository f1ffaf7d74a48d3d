#include "QXLog/recording/PlaySession.h"

#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Env.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/recording/PlaySessions.h"
#include "QXLog/serial/PropertyList.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Time.h"

namespace qxlog::recording {
namespace {

QXLogCenter& center() {
  return QXLogCenter::center();
}

int64_t monotonicMillis() {
  return center().env().clock().monotonicNanos() / 1000000;
}

void postError(format::PlayErrorReport error) {
  if (deferUntilReady(postError, error)) return;
  QXLogMessageFormat& format = center().format();
  center().pushLog(format.diagnosisLog(error.url, error.cause, error.startTime, error.prepareTime,
                                       error.endTime, error.duration, "0", error.definition),
                   format.pushDiagnosisUrl(), true);
}

}  // namespace

std::string PlaySession::fileName(const std::string& playId) {
  return "QXLogPlay-" + playId + ".plist";
}

PlaySession::PlaySession(format::PlayDescription description)
    : description_(std::move(description)),
      wallAnchor_(static_cast<int64_t>(support::currentMillis(center().env().clock()))),
      monotonicAnchor_(monotonicMillis()),
      path_(center().env().documentsPath(fileName(description_.playId))),
      header_(center().format().playLog(description_.url, description_.viewSource,
                                        description_.movieId, description_.isDownload,
                                        description_.isPcdn, description_.videoType)),
      timeline_(wallAnchor_) {
  header_.setString(format::kPlayIdKey, description_.playId);
  std::lock_guard lock(mutex_);
  addLocked(timeline_.takeStart());
}

int64_t PlaySession::now() const {
  return wallAnchor_ + monotonicMillis() - monotonicAnchor_;
}

void PlaySession::setState(format::PlayerState state, int64_t position) {
  std::lock_guard lock(mutex_);
  position_ = position;
  addLocked(timeline_.setState(state, now(), position));
}

void PlaySession::rendition(int height, int64_t bitrate) {
  std::lock_guard lock(mutex_);
  addLocked(timeline_.rendition(height, bitrate, now(), position_));
}

void PlaySession::fail(const std::string& cause) {
  std::lock_guard lock(mutex_);
  if (timeline_.ended()) return;
  const int64_t at = now();
  cause_ = cause;
  addLocked(timeline_.fail(at, position_));
  postError(format::playErrorReport(description_, timeline_, cause_, at));
}

void PlaySession::end() {
  std::lock_guard lock(mutex_);
  const int64_t at = now();
  // The file keeps the last actions until the store has them.
  addLocked(timeline_.end(at, position_));
  storePlayPart(takePartLocked(), id(), true);
  postPlayReport(format::playSummaryReport(description_, timeline_, cause_, at));
}

void PlaySession::sendPart() {
  std::lock_guard lock(mutex_);
  if (timeline_.ended()) return;
  if (!pending_.empty() && environmentReady()) center().storeActionLog(takePartLocked());
  writeFileLocked();
}

void PlaySession::addLocked(const std::vector<format::PlayAction>& actions) {
  if (actions.empty()) return;
  const QXLogMessageFormat& format = center().format();
  for (const format::PlayAction& action : actions) {
    if (pending_.size() >= kMaxPendingActions) {
      ++dropped_;
      continue;
    }
    Dictionary record = format::playSessionAction(format, action);
    center().env().consoleWrite("PlaySession-log:" + id() + ":" + serial::describe(Value(record)));
    pending_.push_back(Value(std::move(record)));
  }
  // A long play goes in parts, each whole under the play's header, once the
  // host's context lets it be stored.
  if (pending_.size() >= kPartActions && environmentReady() && !timeline_.ended()) {
    center().storeActionLog(takePartLocked());
  }
  writeFileLocked();
}

void PlaySession::writeFileLocked() {
  Dictionary record = header_;
  record.set("p", Value(pending_));
  record.set(format::kRestartReportKey, Value(restartReportLocked()));
  center().env().files().replaceAtomically(path_,
                                           serial::toXmlPropertyList(Value(std::move(record))));
}

Dictionary PlaySession::restartReportLocked() {
  const int64_t at = now();
  format::PlayTimeline ended = timeline_;
  ended.end(at, position_);
  return format::playSummaryReport(description_, ended, cause_, at, true);
}

Dictionary PlaySession::takePartLocked() {
  Dictionary record = header_;
  record.set("p", Value(std::move(pending_)));
  pending_.clear();
  return record;
}

}  // namespace qxlog::recording
