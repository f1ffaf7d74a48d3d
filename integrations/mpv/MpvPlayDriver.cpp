#include "integrations/mpv/MpvPlayDriver.h"

#include <cmath>

namespace qxlog::mpv {

namespace {

const char* textOf(const std::optional<std::string>& text) {
  return text ? text->c_str() : nullptr;
}

}  // namespace

void MpvPlayDriver::fileStarted(const std::string& url) {
  fileEnded(std::nullopt);
  QXLogPlayInfo info{textOf(identity_.movieId),    url.c_str(),
                     textOf(identity_.viewSource), textOf(identity_.videoType),
                     identity_.isDownload,         textOf(identity_.isPcdn)};
  play_ = QXLogPlayBegin(&info);
  shown_ = paused_ = waiting_ = seeking_ = false;
  positionMillis_ = height_ = reportedHeight_ = bitrate_ = 0;
  state_.reset();
  report(QXLogPlayerStarting);
}

void MpvPlayDriver::fileEnded(const std::optional<std::string>& error) {
  if (play_ == nullptr) return;
  if (error) QXLogPlayError(play_, error->c_str());
  QXLogPlayEnd(play_);
  play_ = nullptr;
}

void MpvPlayDriver::playbackRestarted() {
  seeking_ = false;
  shown_ = true;
  reportRendition();
  report(settledState());
}

void MpvPlayDriver::seekStarted() {
  if (!shown_) return;  // a seek before the first frame is part of the startup
  seeking_ = true;
  report(QXLogPlayerSeeking);
}

void MpvPlayDriver::setPaused(bool paused) {
  paused_ = paused;
  if (shown_ && !seeking_) report(settledState());
}

void MpvPlayDriver::setPausedForCache(bool waiting) {
  waiting_ = waiting;
  if (shown_ && !seeking_) report(settledState());
}

void MpvPlayDriver::setPosition(double seconds) {
  if (std::isfinite(seconds) && seconds >= 0 && seconds < 1e12) {
    positionMillis_ = static_cast<int64_t>(seconds * 1000.0);
  }
}

void MpvPlayDriver::setVideoHeight(int64_t height) {
  height_ = height;
  if (shown_) reportRendition();
}

void MpvPlayDriver::setVideoBitrate(double bitsPerSecond) {
  if (std::isfinite(bitsPerSecond) && bitsPerSecond > 0 && bitsPerSecond < 1e15) {
    bitrate_ = static_cast<int64_t>(bitsPerSecond);
  }
}

QXLogPlayerState MpvPlayDriver::settledState() const {
  if (paused_) return QXLogPlayerPaused;
  if (waiting_) return QXLogPlayerBuffering;
  return QXLogPlayerPlaying;
}

void MpvPlayDriver::report(QXLogPlayerState state) {
  if (play_ == nullptr || state_ == state) return;
  state_ = state;
  QXLogPlaySetState(play_, state, positionMillis_);
}

void MpvPlayDriver::reportRendition() {
  if (play_ == nullptr || height_ <= 0 || height_ == reportedHeight_) return;
  reportedHeight_ = height_;
  QXLogPlayRendition(play_, static_cast<int>(height_), bitrate_);
}

}  // namespace qxlog::mpv
