#include "QXLog/platform/TimerSource.h"

namespace qxlog::platform {

TimerSource::TimerSource(std::shared_ptr<Executor> executor, std::shared_ptr<const Clock> clock,
                         std::chrono::nanoseconds interval, Handler handler)
    : executor_(std::move(executor)),
      clock_(std::move(clock)),
      interval_(interval),
      handler_(std::move(handler)) {}

std::shared_ptr<TimerSource> TimerSource::start(std::shared_ptr<Executor> executor,
                                                std::shared_ptr<const Clock> clock,
                                                std::chrono::nanoseconds interval,
                                                Handler handler) {
  std::shared_ptr<TimerSource> timer(
      new TimerSource(std::move(executor), std::move(clock), interval, std::move(handler)));
  timer->start_ = timer->clock_->monotonicNanos();
  timer->executor_->async([timer] { timer->fire(); });
  return timer;
}

void TimerSource::fire() {
  if (cancelled()) return;
  handler_(*this);
  ++firings_;
  if (!cancelled()) scheduleNext();
}

// Firings are due at start + k * interval, so that a slow handler does not
// make the timer drift. A firing that is already late runs at once.
void TimerSource::scheduleNext() {
  int64_t interval = interval_.count() > 0 ? interval_.count() : 0;
  int64_t offset = 0;
  int64_t due = 0;
  if (__builtin_mul_overflow(firings_, interval, &offset) ||
      __builtin_add_overflow(start_, offset, &due)) {
    due = INT64_MAX;  // further away than any process lives
  }
  int64_t delay = due - clock_->monotonicNanos();
  executor_->post([self = shared_from_this()] { self->fire(); },
                  std::chrono::nanoseconds(delay > 0 ? delay : 0));
}

}  // namespace qxlog::platform
