// One play from its request to its end: turns the player's events into play
// actions and diagnoses, and keeps the measures for the summary. Plain C++:
// the caller reads the time (ms since 1970, steady) and the media position.
#ifndef QXLOG_INTEGRATIONS_GSTREAMER_PLAYTRACKER_H_
#define QXLOG_INTEGRATIONS_GSTREAMER_PLAYTRACKER_H_

#include <cstdint>
#include <string>

#include "integrations/gstreamer/PlayMeasures.h"
#include "integrations/gstreamer/PlayReporter.h"

namespace qxlog::gst {

class PlayTracker {
 public:
  // Reports the play header and its start.
  PlayTracker(PlayIdentity identity, std::string url, int64_t now);

  bool started() const { return measures_.started(); }
  bool ended() const { return ended_; }

  // The pipeline runs (PLAYING) or not; the first time it runs is the first frame.
  void running(bool running, int64_t now, int64_t position);
  // The pipeline went from PLAYING to PAUSED by itself, not in a seek: a
  // pause unless a rebuffering span explains it.
  void pausedByHost(int64_t now, int64_t position);
  void seekBegan(int64_t now, int64_t position);
  void prerolled(int64_t now, int64_t position);  // ends a seek
  void bufferingPercent(int percent, int64_t now, int64_t position);
  // The video's definition as last read; a change is reported.
  void definition(const std::string& definition, int64_t now, int64_t position);
  // End of stream, or the host stopped the play.
  void ended(int64_t now, int64_t position);
  void failed(const std::string& cause, int64_t now, int64_t position);

 private:
  QXLogPlayStatus status() const;
  PlayOutcome outcome(int64_t now) const;
  void resumeBuffering(int64_t now, int64_t position);
  void closeBuffering(int64_t now, int64_t position);

  PlayReporter reporter_;
  std::string url_;
  int64_t requestTime_;
  PlayMeasures measures_;
  bool running_ = false;
  bool paused_ = false;
  bool ended_ = false;
  int percent_ = 100;  // the last buffering percentage
  std::string definition_;
};

}  // namespace qxlog::gst

#endif  // QXLOG_INTEGRATIONS_GSTREAMER_PLAYTRACKER_H_
