#include "integrations/gstreamer/PlayTracker.h"

namespace qxlog::gst {
namespace {

const char* orNull(const std::optional<std::string>& text) {
  return text ? text->c_str() : nullptr;
}

}  // namespace

PlayTracker::PlayTracker(const PlayIdentity& identity, const std::string& url) {
  const QXLogPlayInfo info{orNull(identity.movieId),    url.c_str(),
                           orNull(identity.viewSource), orNull(identity.videoType),
                           identity.isDownload,         orNull(identity.isPcdn)};
  play_ = QXLogPlayBegin(&info);
}

PlayTracker::~PlayTracker() {
  if (play_ != nullptr) QXLogPlayEnd(play_);
}

void PlayTracker::set(QXLogPlayerState state, int64_t position) {
  if (play_ == nullptr) return;
  state_ = state;
  if (state == QXLogPlayerPlaying) started_ = true;
  QXLogPlaySetState(play_, state, position);
}

// The buffer may still be filling when the startup or a seek ends (its
// messages arrive from other threads, in any order with the state's): once
// frames were shown, the waiting goes on as rebuffering. With the frames
// watched, the first frame waits for one at the sink, and a rebuffering
// waits for the sink to starve.
void PlayTracker::running(int64_t position, bool frameAtSink) {
  if (state_ == QXLogPlayerSeeking) return;  // the seek ends at its preroll
  if (watched_ && !started_ && !frameAtSink) {
    awaitingFirst_ = true;
    return;
  }
  set(QXLogPlayerPlaying, position);
  if (percent_ < 100 && !watched_) set(QXLogPlayerBuffering, position);
}

bool PlayTracker::awaitsFrames() const {
  if (!watched_ || play_ == nullptr) return false;
  return awaitingFirst_ || state_ == QXLogPlayerBuffering ||
         (state_ == QXLogPlayerPlaying && percent_ < 100);
}

void PlayTracker::framesFlow(int64_t position) {
  if (awaitingFirst_ || state_ == QXLogPlayerBuffering) set(QXLogPlayerPlaying, position);
  awaitingFirst_ = false;
}

void PlayTracker::sinkStarved(int64_t position) {
  if (state_ == QXLogPlayerPlaying && percent_ < 100) set(QXLogPlayerBuffering, position);
}

// A host that pauses while the buffer fills stops the frames for data.
void PlayTracker::pausedByHost(int64_t position) {
  awaitingFirst_ = false;
  if (state_ == QXLogPlayerBuffering || state_ == QXLogPlayerSeeking) return;
  set(watched_ && started_ && percent_ < 100 ? QXLogPlayerBuffering : QXLogPlayerPaused, position);
}

void PlayTracker::seekBegan(int64_t position) {
  awaitingFirst_ = false;
  if (started_) set(QXLogPlayerSeeking, position);
}

void PlayTracker::prerolled(bool playing, int64_t position) {
  if (state_ != QXLogPlayerSeeking) return;
  set(playing ? QXLogPlayerPlaying : QXLogPlayerPaused, position);
  if (playing && percent_ < 100 && !watched_) set(QXLogPlayerBuffering, position);
}

// Playback stops for data only while it was playing; a buffer that refills
// while paused, starting or seeking is no rebuffering. Watched frames say
// when playback stops and goes on.
void PlayTracker::bufferingPercent(int percent, int64_t position) {
  percent_ = percent;
  if (watched_) return;
  if (percent < 100 && state_ == QXLogPlayerPlaying) {
    set(QXLogPlayerBuffering, position);
  } else if (percent >= 100 && state_ == QXLogPlayerBuffering) {
    set(QXLogPlayerPlaying, position);
  }
}

void PlayTracker::rendition(int height, int64_t bitrate) {
  if (play_ != nullptr && height > 0) QXLogPlayRendition(play_, height, bitrate);
}

void PlayTracker::ended(int64_t position) {
  if (play_ == nullptr) return;
  QXLogPlaySetState(play_, state_, position);  // the position reached
  QXLogPlayEnd(play_);
  play_ = nullptr;
}

void PlayTracker::failed(const std::string& cause, int64_t position) {
  if (play_ == nullptr) return;
  QXLogPlaySetState(play_, state_, position);
  QXLogPlayError(play_, cause.c_str());
  ended(position);
}

}  // namespace qxlog::gst
