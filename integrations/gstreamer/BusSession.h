// The GStreamer side of a session: the bus watch, a position sampler, the
// frames at the video sink, and the reading of the pipeline's messages as
// play events for the current play. Everything here runs on the attaching
// thread's main context but the frame probe, which only counts frames.
#ifndef QXLOG_INTEGRATIONS_GSTREAMER_BUSSESSION_H_
#define QXLOG_INTEGRATIONS_GSTREAMER_BUSSESSION_H_

#include <gst/gst.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "integrations/gstreamer/FrameWatch.h"
#include "integrations/gstreamer/PlayTracker.h"

namespace qxlog::gst {

class BusSession {
 public:
  BusSession(GstElement* pipeline, PlayIdentity identity);
  ~BusSession();  // ends the current play and removes the watch
  BusSession(const BusSession&) = delete;
  BusSession& operator=(const BusSession&) = delete;

 private:
  static void onMessage(GstBus* bus, GstMessage* message, gpointer self);
  static gboolean onSample(gpointer self);
  // The frame check's timer, on the session's context; it tells the play.
  static gboolean onFrameCheck(gpointer self);

  void handle(GstMessage* message);
  void dispatch(GstMessage* message);
  void stateChanged(GstMessage* message);
  void sample();
  void begin();
  // Finds the video sink if it was not found yet; tells the play.
  void watchFrames();
  // Runs the frame check while the play waits on frames at the sink.
  void checkFramesWhileAwaited();
  // Tells the play that frames came or stopped; false once it needs no more.
  bool checkFrames();
  // The pipeline's state, or the one it is going to.
  GstState requestedState() const;
  // Reads the position, and keeps it with the time of the read.
  int64_t position();
  // The last position read before the sink's latest flush, if it was
  // flushed since: a read after a flushing seek began gives its target.
  int64_t positionBeforeFlush();

  GstElement* pipeline_;
  GstBus* bus_;
  gulong handler_ = 0;
  GSource* sampler_ = nullptr;
  GSource* frameCheck_ = nullptr;       // while the play awaits frames
  std::unique_ptr<FrameWatch> frames_;  // the current play's video sink
  uint64_t framesSeen_ = 0;             // the count at the last check
  PlayIdentity identity_;
  std::unique_ptr<PlayTracker> play_;
  std::optional<int64_t> lostPreroll_;  // the position when the pipeline lost its preroll
  int64_t lastPosition_ = 0;
  std::deque<std::pair<int64_t, int64_t>> reads_;  // steady nanoseconds, position; the latest
  int64_t bitrate_ = 0;  // the adaptive demuxer's last choice; 0 when none said
};

}  // namespace qxlog::gst

#endif  // QXLOG_INTEGRATIONS_GSTREAMER_BUSSESSION_H_
