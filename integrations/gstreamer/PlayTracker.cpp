#include "integrations/gstreamer/PlayTracker.h"

namespace qxlog::gst {

PlayTracker::PlayTracker(PlayIdentity identity, std::string url, int64_t now)
    : reporter_(std::move(identity)), url_(std::move(url)), requestTime_(now), measures_(now) {
  reporter_.start(url_);
  reporter_.instant(QXLogPlayOperationStart, QXLogPlayStatusBuffering, now, 0);
}

void PlayTracker::running(bool running, int64_t now, int64_t position) {
  if (ended_ || running == running_) return;
  running_ = running;
  measures_.setRunning(running, now);
  if (!running) return;
  if (auto startup = measures_.firstFrame(now, position)) {
    reporter_.span(QXLogPlayOperationFirstFrame, status(), *startup);
    resumeBuffering(now, position);
  } else if (paused_) {
    paused_ = false;
    reporter_.instant(QXLogPlayOperationResume, status(), now, position);
  }
}

void PlayTracker::pausedByHost(int64_t now, int64_t position) {
  running(false, now, position);
  if (ended_ || !started() || measures_.buffering() || measures_.seeking() || paused_) return;
  paused_ = true;
  reporter_.instant(QXLogPlayOperationPause, status(), now, position);
}

void PlayTracker::seekBegan(int64_t now, int64_t position) {
  if (!ended_) measures_.seekBegan(now, position);
}

void PlayTracker::prerolled(int64_t now, int64_t position) {
  if (ended_) return;
  if (auto seek = measures_.seekEnded(now, position)) {
    reporter_.span(QXLogPlayOperationSeek, status(), *seek);
    resumeBuffering(now, position);
  }
}

void PlayTracker::bufferingPercent(int percent, int64_t now, int64_t position) {
  if (ended_) return;
  percent_ = percent;
  if (percent < 100) {
    measures_.bufferingBegan(now, position);
  } else {
    closeBuffering(now, position);
  }
}

void PlayTracker::definition(const std::string& definition, int64_t now, int64_t position) {
  if (ended_ || definition.empty() || definition == definition_) return;
  definition_ = definition;
  reporter_.instant(QXLogPlayOperationQualityChange, status(), now, position);
}

void PlayTracker::ended(int64_t now, int64_t position) {
  if (ended_) return;
  closeBuffering(now, position);
  const PlaySummary summary = measures_.finish(now, false);
  ended_ = true;
  reporter_.instant(QXLogPlayOperationEnd, QXLogPlayStatusStopped, now, position,
                    summary.playedMillis);
  reporter_.summary(outcome(now), summary);
}

void PlayTracker::failed(const std::string& cause, int64_t now, int64_t position) {
  if (ended_) return;
  closeBuffering(now, position);
  const PlaySummary summary = measures_.finish(now, true);
  ended_ = true;
  reporter_.instant(QXLogPlayOperationError, QXLogPlayStatusFailed, now, position,
                    summary.playedMillis);
  reporter_.error(outcome(now), cause);
  reporter_.summary(outcome(now), summary);
}

QXLogPlayStatus PlayTracker::status() const {
  if (ended_) return QXLogPlayStatusStopped;
  if (measures_.buffering()) return QXLogPlayStatusBuffering;
  if (paused_) return QXLogPlayStatusPaused;
  return started() && running_ ? QXLogPlayStatusPlaying : QXLogPlayStatusBuffering;
}

PlayOutcome PlayTracker::outcome(int64_t now) const {
  return PlayOutcome{url_, requestTime_, now, measures_.startupMillis(), definition_};
}

// The buffer may still be filling when the startup or a seek ends (its
// messages arrive from other threads, in any order with the state's): the
// waiting goes on as rebuffering.
void PlayTracker::resumeBuffering(int64_t now, int64_t position) {
  if (percent_ < 100) measures_.bufferingBegan(now, position);
}

void PlayTracker::closeBuffering(int64_t now, int64_t position) {
  if (auto span = measures_.bufferingEnded(now, position)) {
    reporter_.span(QXLogPlayOperationBuffering, status(), *span);
  }
}

}  // namespace qxlog::gst
