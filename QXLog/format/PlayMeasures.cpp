#include "QXLog/format/PlayMeasures.h"

#include <algorithm>
#include <cmath>

namespace qxlog::format {

std::optional<Span> PlayMeasures::firstFrame(int64_t now, int64_t position) {
  if (started()) return std::nullopt;
  accumulate(now);
  firstFrame_ = std::max(now, requestTime_);
  return Span{requestTime_, *firstFrame_, 0, position};
}

std::optional<int64_t> PlayMeasures::startupMillis() const {
  if (!firstFrame_) return std::nullopt;
  return *firstFrame_ - requestTime_;
}

void PlayMeasures::setRunning(bool running, int64_t now) {
  accumulate(now);
  running_ = running;
}

bool PlayMeasures::bufferingBegan(int64_t now, int64_t position) {
  if (!started() || seek_ || buffering_) return false;
  accumulate(now);
  buffering_ = Span{now, now, position, position};
  return true;
}

std::optional<Span> PlayMeasures::bufferingEnded(int64_t now, int64_t position) {
  if (!buffering_) return std::nullopt;
  accumulate(now);
  Span span = *buffering_;
  buffering_.reset();
  span.endTime = std::max(now, span.startTime);
  span.endPosition = position;
  if (span.millis() <= 0) return std::nullopt;
  ++rebufferCount_;
  rebufferMillis_ += span.millis();
  return span;
}

bool PlayMeasures::seekBegan(int64_t now, int64_t position) {
  if (!started() || seek_) return false;
  accumulate(now);
  buffering_.reset();
  seek_ = Span{now, now, position, position};
  return true;
}

std::optional<Span> PlayMeasures::seekEnded(int64_t now, int64_t position) {
  if (!seek_) return std::nullopt;
  accumulate(now);
  Span span = *seek_;
  seek_.reset();
  span.endTime = std::max(now, span.startTime);
  span.endPosition = position;
  ++seekCount_;
  seekMillis_ += span.millis();
  return span;
}

bool PlayMeasures::rendition(int height, int64_t bitrate, int64_t now) {
  height = std::max(height, 0);
  bitrate = std::max<int64_t>(bitrate, 0);
  if (hasRendition_ && height == height_ && bitrate == bitrate_) return false;
  accumulate(now);
  const bool isSwitch = hasRendition_ && started();
  if (isSwitch) ++switches_;
  hasRendition_ = true;
  height_ = height;
  bitrate_ = bitrate;
  topHeight_ = std::max(topHeight_, height);
  return isSwitch;
}

PlaySummary PlayMeasures::finish(int64_t now, bool failed) {
  if (buffering_) bufferingEnded(now, buffering_->startPosition);
  if (seek_) seekEnded(now, seek_->startPosition);
  setRunning(false, now);
  PlaySummary summary;
  summary.startupMillis = startupMillis().value_or(std::max<int64_t>(now - requestTime_, 0));
  summary.rebufferCount = rebufferCount_;
  summary.rebufferMillis = rebufferMillis_;
  summary.seekCount = seekCount_;
  summary.seekAverageMillis = seekCount_ > 0 ? seekMillis_ / seekCount_ : 0;
  summary.playedMillis = playedMillis_;
  summary.exitBeforeStart = !started() && !failed;
  summary.failed = failed;
  summary.renditionSwitches = switches_;
  summary.averageBitrate = bitrateMillis_ > 0
                               ? std::llround(bitMillis_ / static_cast<double>(bitrateMillis_))
                               : bitrate_;
  summary.topHeight = topHeight_;
  return summary;
}

void PlayMeasures::accumulate(int64_t now) {
  if (framesMoving() && now > lastChange_) {
    const int64_t millis = now - lastChange_;
    playedMillis_ += millis;
    if (bitrate_ > 0) {
      bitMillis_ += static_cast<double>(bitrate_) * static_cast<double>(millis);
      bitrateMillis_ += millis;
    }
  }
  lastChange_ = std::max(lastChange_, now);
}

}  // namespace qxlog::format
