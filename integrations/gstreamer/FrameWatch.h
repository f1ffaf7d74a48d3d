// The frames that reach a pipeline's video sink, seen by a buffer probe on
// the sink's pad: how many, and whether the sink has gone without one for
// longer than a frame's showing allows; and, by an event probe there, when
// the sink was last flushed (a flushing seek begins with that).
#ifndef QXLOG_INTEGRATIONS_GSTREAMER_FRAMEWATCH_H_
#define QXLOG_INTEGRATIONS_GSTREAMER_FRAMEWATCH_H_

#include <gst/gst.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

namespace qxlog::gst {

class FrameWatch {
 public:
  // A watch on the video sink of `pipeline`: playbin's "video-sink", else a
  // sink element whose class or caps say video, else the pipeline's only
  // sink. Nothing when none is found (yet: sinks may be added later).
  static std::unique_ptr<FrameWatch> find(GstElement* pipeline);
  ~FrameWatch();  // removes the probe
  FrameWatch(const FrameWatch&) = delete;
  FrameWatch& operator=(const FrameWatch&) = delete;

  // The frames that reached the sink so far. Any thread.
  uint64_t frames() const { return counts_->frames.load(std::memory_order_acquire); }
  // No frame has reached the sink for two frame durations (at least 50 ms)
  // since the last one. Any thread.
  bool starved() const;
  // The clock of `pipeline` reached the time the sink shows the first frame
  // that came since the last restart (its timestamp in the sink's segment),
  // or that time is unknown: a synchronised sink holds a frame that came
  // early until then. Any thread.
  bool firstFrameDue(GstElement* pipeline) const;
  // Forgets the frames that came: the next one is the first.
  void restart() { counts_->firstPts.store(GST_CLOCK_TIME_NONE, std::memory_order_relaxed); }
  // The steady clock's time, in nanoseconds since its epoch, at which a
  // flush last began at the sink, once: 0 when none began since the last
  // call. Any thread.
  int64_t takeFlushTime() { return counts_->flushedAt.exchange(0, std::memory_order_relaxed); }
  // Where, in milliseconds of the stream, the first frame after the last
  // flush stands, once: nothing when no frame came since a flush, or when its
  // time is unknown. Any thread.
  std::optional<int64_t> takeResumePosition() {
    const int64_t millis = counts_->resumedAt.exchange(-1, std::memory_order_relaxed);
    return millis >= 0 ? std::optional<int64_t>(millis) : std::nullopt;
  }
  // The steady clock as the probes read it.
  static int64_t steadyNanos();

 private:
  // What the probe writes on the streaming threads; shared with the probe
  // so that a call running while the probe is removed finds it alive.
  struct Counts {
    std::atomic<uint64_t> frames{0};
    std::atomic<int64_t> lastNanos{0};                    // steady clock, at the last frame
    std::atomic<int64_t> durationNanos{0};                // the last frame's, 0 when unknown
    std::atomic<uint64_t> firstPts{GST_CLOCK_TIME_NONE};  // since the last restart
    std::atomic<int64_t> flushedAt{0};                    // steady clock, at a flush's start
    std::atomic<bool> flushed{false};                     // no frame came since a flush
    std::atomic<int64_t> resumedAt{-1};                   // stream ms of the frame after it
  };

  explicit FrameWatch(GstPad* pad);
  static GstPadProbeReturn onBuffer(GstPad* pad, GstPadProbeInfo* info, gpointer counts);
  static GstPadProbeReturn onFlush(GstPad* pad, GstPadProbeInfo* info, gpointer counts);
  // Adds a probe of `type` that reads and writes the counts.
  gulong addProbe(GstPadProbeType type, GstPadProbeCallback callback);

  GstPad* pad_;
  gulong probe_ = 0;
  gulong flushProbe_ = 0;
  std::shared_ptr<Counts> counts_;
};

}  // namespace qxlog::gst

#endif  // QXLOG_INTEGRATIONS_GSTREAMER_FRAMEWATCH_H_
