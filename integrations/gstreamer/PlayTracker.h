// One play from its request to its end, told to the library's play API
// (QXLog/QXLogPlay.h) as player states: the API measures it and reports its
// actions and summary. The pipeline's events arrive in GStreamer's terms;
// this class keeps only what is needed to name the state they mean.
#ifndef QXLOG_INTEGRATIONS_GSTREAMER_PLAYTRACKER_H_
#define QXLOG_INTEGRATIONS_GSTREAMER_PLAYTRACKER_H_

#include <cstdint>
#include <optional>
#include <string>

#include "QXLog/QXLogPlay.h"
#include "integrations/PlayIdentity.h"

namespace qxlog::gst {

using integrations::PlayIdentity;

class PlayTracker {
 public:
  // Begins the play: its header and its start.
  PlayTracker(const PlayIdentity& identity, const std::string& url);
  ~PlayTracker();  // ends the play if it did not end
  PlayTracker(const PlayTracker&) = delete;
  PlayTracker& operator=(const PlayTracker&) = delete;

  bool started() const { return started_; }
  bool ended() const { return play_ == nullptr; }

  // Whether the adapter sees the frames that reach the video sink: the
  // first frame is the first one there, and a rebuffering runs from when
  // they stop while the buffer is below 100 % to when they come again.
  void watchFrames(bool watched) { watched_ = watched; }
  // Whether the adapter should tell framesFlow or sinkStarved.
  bool awaitsFrames() const;
  // The pipeline reached PLAYING: frames are shown, unless the buffer is
  // still filling after the startup or a seek. `frameAtSink`: a frame of
  // this play is shown at the video sink (watched frames only).
  void running(int64_t position, bool frameAtSink = true);
  // Frames are shown again at the video sink of the playing pipeline.
  void framesFlow(int64_t position);
  // No frame reached the video sink for longer than a frame is shown.
  void sinkStarved(int64_t position);
  // The pipeline went from PLAYING to PAUSED by itself, not in a seek.
  void pausedByHost(int64_t position);
  void seekBegan(int64_t position);
  // The pipeline prerolled again; `playing` when it goes on to PLAYING.
  void prerolled(bool playing, int64_t position);
  void bufferingPercent(int percent, int64_t position);
  // The rendition shown: the video's height, and the bitrate the adaptive
  // demuxer last chose (0 when none said).
  void rendition(int height, int64_t bitrate);
  // End of stream, or the host stopped the play, at `position`.
  void ended(int64_t position);
  void failed(const std::string& cause, int64_t position);

 private:
  void set(QXLogPlayerState state, int64_t position);

  QXLogPlay* play_;
  QXLogPlayerState state_ = QXLogPlayerStarting;
  bool started_ = false;
  int percent_ = 100;  // the last buffering percentage
  bool watched_ = false;
  bool awaitingFirst_ = false;  // PLAYING reached, no frame at the sink yet
};

}  // namespace qxlog::gst

#endif  // QXLOG_INTEGRATIONS_GSTREAMER_PLAYTRACKER_H_
