// The measures of one play, apart from any player: startup, rebuffering
// spans, seeks and the time frames were shown. Times are milliseconds on one
// steady clock, positions milliseconds of media time; the caller tells what
// happened and when.
#ifndef QXLOG_INTEGRATIONS_GSTREAMER_PLAYMEASURES_H_
#define QXLOG_INTEGRATIONS_GSTREAMER_PLAYMEASURES_H_

#include <cstdint>
#include <optional>

namespace qxlog::gst {

// A finished span: a rebuffering, a seek, the startup.
struct Span {
  int64_t startTime = 0;
  int64_t endTime = 0;
  int64_t startPosition = 0;
  int64_t endPosition = 0;
  int64_t millis() const { return endTime - startTime; }
};

// What the end-of-play summary reports.
struct PlaySummary {
  int64_t startupMillis = 0;  // request to first frame, or to the end without one
  int64_t rebufferCount = 0;
  int64_t rebufferMillis = 0;
  int64_t seekCount = 0;
  int64_t seekAverageMillis = 0;
  int64_t playedMillis = 0;  // frames moving: playing, not buffering nor seeking
  bool exitBeforeStart = false;
  bool failed = false;
};

class PlayMeasures {
 public:
  explicit PlayMeasures(int64_t requestTime) : requestTime_(requestTime) {}

  // The first frame: the startup span, once; nothing afterwards.
  std::optional<Span> firstFrame(int64_t now, int64_t position);
  bool started() const { return firstFrame_.has_value(); }
  std::optional<int64_t> startupMillis() const;

  // Whether the pipeline runs; frames move when it does, once started,
  // outside rebuffering and seeks.
  void setRunning(bool running, int64_t now);

  // A rebuffering span opens after the first frame and outside a seek (the
  // startup and a seek include their own waiting); repeats while it is open
  // change nothing. True when a span opened.
  bool bufferingBegan(int64_t now, int64_t position);
  std::optional<Span> bufferingEnded(int64_t now, int64_t position);
  bool buffering() const { return buffering_.has_value(); }

  // A seek after the first frame, from its request until the pipeline
  // prerolled again; an open rebuffering span ends in it uncounted.
  bool seekBegan(int64_t now, int64_t position);
  std::optional<Span> seekEnded(int64_t now, int64_t position);
  bool seeking() const { return seek_.has_value(); }

  // Closes what is open and sums up; an open rebuffering span counts.
  PlaySummary finish(int64_t now, bool failed);

 private:
  bool framesMoving() const { return running_ && started() && !buffering_ && !seek_; }
  // Adds the time since the last change while frames moved; call before any change.
  void accumulate(int64_t now);
  // Closes the open span at `now`, adds it to `count` and `millis`, and
  // returns it; nothing when no span is open.
  std::optional<Span> close(std::optional<Span>& open, int64_t now, int64_t position,
                            int64_t& count, int64_t& millis);

  int64_t requestTime_;
  std::optional<int64_t> firstFrame_;
  bool running_ = false;
  int64_t playedMillis_ = 0;
  int64_t lastChange_ = 0;
  std::optional<Span> buffering_;  // open span: start fields only
  std::optional<Span> seek_;
  int64_t rebufferCount_ = 0;
  int64_t rebufferMillis_ = 0;
  int64_t seekCount_ = 0;
  int64_t seekMillis_ = 0;
};

}  // namespace qxlog::gst

#endif  // QXLOG_INTEGRATIONS_GSTREAMER_PLAYMEASURES_H_
