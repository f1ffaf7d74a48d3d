// The measures of one play, apart from any player: startup, rebuffering
// spans, seeks, the time frames were shown and the renditions shown. Times
// are milliseconds on one steady clock, positions milliseconds of media time;
// the caller tells what happened and when. Not thread-safe: the owner locks.
#ifndef QXLOG_FORMAT_PLAYMEASURES_H_
#define QXLOG_FORMAT_PLAYMEASURES_H_

#include <cstdint>
#include <optional>

namespace qxlog::format {

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
  int64_t playedMillis = 0;      // frames moving: playing, not buffering nor seeking
  bool exitBeforeStart = false;  // ended by the host before the first frame, not failed
  bool failed = false;
  int64_t renditionSwitches = 0;
  int64_t averageBitrate = 0;  // bits/s, weighted by the time each was played; 0 unknown
  int topHeight = 0;           // the highest rendition shown; 0 unknown
};

class PlayMeasures {
 public:
  explicit PlayMeasures(int64_t requestTime) : requestTime_(requestTime) {}

  // The first frame: the startup span, once; nothing afterwards.
  std::optional<Span> firstFrame(int64_t now, int64_t position);
  bool started() const { return firstFrame_.has_value(); }
  std::optional<int64_t> startupMillis() const;

  // Whether the player runs; frames move when it does, once started,
  // outside rebuffering and seeks.
  void setRunning(bool running, int64_t now);

  // A rebuffering span opens after the first frame and outside a seek (the
  // startup and a seek include their own waiting); repeats while it is open
  // change nothing. True when a span opened. A span that ends in the
  // millisecond it began stopped nothing: it is neither counted nor returned.
  bool bufferingBegan(int64_t now, int64_t position);
  std::optional<Span> bufferingEnded(int64_t now, int64_t position);
  bool buffering() const { return buffering_.has_value(); }

  // A seek after the first frame, from its request until the player showed
  // frames again; an open rebuffering span ends in it uncounted.
  bool seekBegan(int64_t now, int64_t position);
  std::optional<Span> seekEnded(int64_t now, int64_t position);
  bool seeking() const { return seek_.has_value(); }

  // The rendition shown from `now`; heights and bitrates below 1 are unknown.
  // A change of either after the first frame, from a rendition already
  // known, is a switch: true then.
  bool rendition(int height, int64_t bitrate, int64_t now);
  int height() const { return height_; }
  int64_t bitrate() const { return bitrate_; }

  // Closes what is open and sums up; an open rebuffering span counts.
  PlaySummary finish(int64_t now, bool failed);

 private:
  bool framesMoving() const { return running_ && started() && !buffering_ && !seek_; }
  // Adds the time since the last change while frames moved; call before any change.
  void accumulate(int64_t now);

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
  bool hasRendition_ = false;
  int height_ = 0;
  int64_t bitrate_ = 0;
  int topHeight_ = 0;
  int64_t switches_ = 0;
  double bitMillis_ = 0;       // bitrate x ms played at a known bitrate
  int64_t bitrateMillis_ = 0;  // ms played at a known bitrate
};

}  // namespace qxlog::format

#endif  // QXLOG_FORMAT_PLAYMEASURES_H_
