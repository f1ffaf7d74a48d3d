#include "QXLog/format/PlayTimeline.h"

namespace qxlog::format {
namespace {

PlayAction instant(QXLogPlayOperation operation, QXLogPlayStatus status, int64_t now,
                   int64_t position, int64_t playTime = 0) {
  return PlayAction{operation, status, Span{now, now, position, position}, playTime};
}

PlayAction spanAction(QXLogPlayOperation operation, QXLogPlayStatus status, const Span& span) {
  return PlayAction{operation, status, span, span.millis()};
}

}  // namespace

PlayTimeline::PlayTimeline(int64_t now) : requestTime_(now), measures_(now) {
  start_.push_back(instant(QXLogPlayOperationStart, QXLogPlayStatusBuffering, now, 0));
}

std::vector<PlayAction> PlayTimeline::takeStart() {
  return std::move(start_);
}

QXLogPlayStatus PlayTimeline::status() const {
  if (summary_) return summary_->failed ? QXLogPlayStatusFailed : QXLogPlayStatusStopped;
  switch (state_) {
    case PlayerState::kPlaying:
      return QXLogPlayStatusPlaying;
    case PlayerState::kPaused:
      return measures_.started() ? QXLogPlayStatusPaused : QXLogPlayStatusBuffering;
    default:
      return QXLogPlayStatusBuffering;
  }
}

// Before the first frame every state is part of the startup; after it, a
// buffering state while playing opens a rebuffering span, a seek opens a
// seek span (its own waiting included), and playing again closes them.
std::vector<PlayAction> PlayTimeline::setState(PlayerState state, int64_t now, int64_t position) {
  std::vector<PlayAction> out;
  if (ended() || state == state_) return out;
  const PlayerState previous = state_;
  state_ = state;
  switch (state) {
    case PlayerState::kStarting:
      // Not a state to return to once started: the player is waiting.
      if (measures_.started()) state_ = previous;
      break;
    case PlayerState::kPlaying:
      if (auto startup = measures_.firstFrame(now, position)) {
        out.push_back(spanAction(QXLogPlayOperationFirstFrame, status(), *startup));
      } else {
        closeBuffering(out, now, position);
        closeSeek(out, now, position);
        if (paused_) out.push_back(instant(QXLogPlayOperationResume, status(), now, position));
      }
      paused_ = false;
      measures_.setRunning(true, now);
      break;
    case PlayerState::kPaused:
      measures_.setRunning(false, now);
      if (!measures_.started()) break;
      closeBuffering(out, now, position);
      closeSeek(out, now, position);
      if (!paused_) out.push_back(instant(QXLogPlayOperationPause, status(), now, position));
      paused_ = true;
      break;
    case PlayerState::kBuffering:
      if (previous == PlayerState::kPlaying) measures_.bufferingBegan(now, position);
      if (previous == PlayerState::kPaused || measures_.seeking()) state_ = previous;
      break;
    case PlayerState::kSeeking:
      if (!measures_.started()) break;
      measures_.seekBegan(now, position);
      break;
  }
  return out;
}

std::vector<PlayAction> PlayTimeline::rendition(int height, int64_t bitrate, int64_t now,
                                                int64_t position) {
  std::vector<PlayAction> out;
  if (ended()) return out;
  const int before = measures_.height();
  if (!measures_.rendition(height, bitrate, now)) return out;
  PlayAction change = instant(QXLogPlayOperationQualityChange, status(), now, position);
  change.fromHeight = before;
  change.toHeight = measures_.height();
  change.bitrate = measures_.bitrate();
  out.push_back(change);
  return out;
}

std::vector<PlayAction> PlayTimeline::fail(int64_t now, int64_t position) {
  std::vector<PlayAction> out;
  if (!ended()) finish(out, QXLogPlayOperationError, now, position, true);
  return out;
}

std::vector<PlayAction> PlayTimeline::end(int64_t now, int64_t position) {
  std::vector<PlayAction> out;
  if (!ended()) finish(out, QXLogPlayOperationEnd, now, position, false);
  return out;
}

void PlayTimeline::finish(std::vector<PlayAction>& out, QXLogPlayOperation operation, int64_t now,
                          int64_t position, bool failed) {
  closeBuffering(out, now, position);
  summary_ = measures_.finish(now, failed);
  out.push_back(instant(operation, status(), now, position, summary_->playedMillis));
}

void PlayTimeline::closeBuffering(std::vector<PlayAction>& out, int64_t now, int64_t position) {
  if (auto span = measures_.bufferingEnded(now, position)) {
    out.push_back(spanAction(QXLogPlayOperationBuffering, status(), *span));
  }
}

void PlayTimeline::closeSeek(std::vector<PlayAction>& out, int64_t now, int64_t position) {
  if (auto span = measures_.seekEnded(now, position)) {
    out.push_back(spanAction(QXLogPlayOperationSeek, status(), *span));
  }
}

}  // namespace qxlog::format
