#include "integrations/gstreamer/PlayMeasures.h"

namespace qxlog::gst {

std::optional<Span> PlayMeasures::firstFrame(int64_t now, int64_t position) {
  if (started()) return std::nullopt;
  accumulate(now);
  firstFrame_ = now;
  return Span{requestTime_, now, 0, position};
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
  return close(buffering_, now, position, rebufferCount_, rebufferMillis_);
}

bool PlayMeasures::seekBegan(int64_t now, int64_t position) {
  if (!started() || seek_) return false;
  accumulate(now);
  buffering_.reset();
  seek_ = Span{now, now, position, position};
  return true;
}

std::optional<Span> PlayMeasures::seekEnded(int64_t now, int64_t position) {
  return close(seek_, now, position, seekCount_, seekMillis_);
}

std::optional<Span> PlayMeasures::close(std::optional<Span>& open, int64_t now, int64_t position,
                                        int64_t& count, int64_t& millis) {
  if (!open) return std::nullopt;
  accumulate(now);
  Span span = *open;
  open.reset();
  span.endTime = now;
  span.endPosition = position;
  ++count;
  millis += span.millis();
  return span;
}

PlaySummary PlayMeasures::finish(int64_t now, bool failed) {
  bufferingEnded(now, buffering_ ? buffering_->startPosition : 0);
  seekEnded(now, seek_ ? seek_->startPosition : 0);
  setRunning(false, now);
  PlaySummary summary;
  summary.startupMillis = startupMillis().value_or(now - requestTime_);
  summary.rebufferCount = rebufferCount_;
  summary.rebufferMillis = rebufferMillis_;
  summary.seekCount = seekCount_;
  summary.seekAverageMillis = seekCount_ > 0 ? seekMillis_ / seekCount_ : 0;
  summary.playedMillis = playedMillis_;
  summary.exitBeforeStart = !started();
  summary.failed = failed;
  return summary;
}

void PlayMeasures::accumulate(int64_t now) {
  if (framesMoving() && now > lastChange_) playedMillis_ += now - lastChange_;
  lastChange_ = now;
}

}  // namespace qxlog::gst
