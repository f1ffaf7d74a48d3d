// Turns what an mpv core says (file start and end, playback restarts, seeks,
// observed properties) into calls of the play API. Pure bookkeeping: it
// talks to mpv through nothing but the values it is handed, so one thread
// feeds it.
#ifndef QXLOG_INTEGRATIONS_MPV_MPVPLAYDRIVER_H_
#define QXLOG_INTEGRATIONS_MPV_MPVPLAYDRIVER_H_

#include <cstdint>
#include <optional>
#include <string>

#include "QXLog/QXLogPlay.h"
#include "integrations/PlayIdentity.h"

namespace qxlog::mpv {

using integrations::PlayIdentity;

class MpvPlayDriver {
 public:
  explicit MpvPlayDriver(PlayIdentity identity) : identity_(std::move(identity)) {}
  ~MpvPlayDriver() { fileEnded(std::nullopt); }
  MpvPlayDriver(const MpvPlayDriver&) = delete;
  MpvPlayDriver& operator=(const MpvPlayDriver&) = delete;

  // A file starts loading: a play begins (an open one ends first).
  void fileStarted(const std::string& url);
  // The file ended; `error` is the failure's cause, nothing for an end of
  // file, a stop or a detach.
  void fileEnded(const std::optional<std::string>& error);
  // Playback (re)started after loading or a seek: frames are shown.
  void playbackRestarted();
  // A seek was requested.
  void seekStarted();

  void setPaused(bool paused);
  void setPausedForCache(bool waiting);
  void setPosition(double seconds);
  void setVideoHeight(int64_t height);
  void setVideoBitrate(double bitsPerSecond);

  bool playing() const { return play_ != nullptr; }

 private:
  // The state that the flags say, once frames were shown.
  QXLogPlayerState settledState() const;
  void report(QXLogPlayerState state);
  void reportRendition();

  PlayIdentity identity_;
  QXLogPlay* play_ = nullptr;
  bool shown_ = false;  // frames were shown since the file started
  bool paused_ = false;
  bool waiting_ = false;
  bool seeking_ = false;
  int64_t positionMillis_ = 0;
  int64_t height_ = 0;
  int64_t reportedHeight_ = 0;
  int64_t bitrate_ = 0;
  std::optional<QXLogPlayerState> state_;
};

}  // namespace qxlog::mpv

#endif  // QXLOG_INTEGRATIONS_MPV_MPVPLAYDRIVER_H_
