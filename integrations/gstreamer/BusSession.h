// The GStreamer side of a session: the bus watch, a position sampler, and the
// reading of the pipeline's messages as play events for the current play.
#ifndef QXLOG_INTEGRATIONS_GSTREAMER_BUSSESSION_H_
#define QXLOG_INTEGRATIONS_GSTREAMER_BUSSESSION_H_

#include <gst/gst.h>

#include <cstdint>
#include <memory>
#include <optional>

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

  void handle(GstMessage* message);
  void stateChanged(GstMessage* message);
  void sample();
  void begin();
  // The pipeline's state, or the one it is going to.
  GstState requestedState() const;
  // Ms since 1970 on a steady clock: the wall clock at attach plus the
  // monotonic time since.
  int64_t now() const;
  int64_t position();

  GstElement* pipeline_;
  GstBus* bus_;
  gulong handler_ = 0;
  GSource* sampler_ = nullptr;
  PlayIdentity identity_;
  std::unique_ptr<PlayTracker> play_;
  struct Moment {
    int64_t time;
    int64_t position;
  };
  std::optional<Moment> lostPreroll_;  // since the pipeline lost its preroll
  int64_t lastPosition_ = 0;
  int64_t wallAnchor_;
  int64_t monotonicAnchor_;
};

}  // namespace qxlog::gst

#endif  // QXLOG_INTEGRATIONS_GSTREAMER_BUSSESSION_H_
