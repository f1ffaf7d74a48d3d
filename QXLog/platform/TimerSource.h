// The stand-in for a dispatch timer source: a repeating timer whose handler
// runs on an executor, first at once, then every interval, until cancelled.
#ifndef QXLOG_PLATFORM_TIMERSOURCE_H_
#define QXLOG_PLATFORM_TIMERSOURCE_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "QXLog/QXLogExecutor.h"
#include "QXLog/platform/Clock.h"

namespace qxlog::platform {

class TimerSource : public std::enable_shared_from_this<TimerSource> {
 public:
  using Handler = std::function<void(TimerSource& timer)>;

  // Starts a timer whose firings run `handler` on `executor`: at once, then
  // every `interval` after the start on `clock`. Firings of one timer never overlap. The
  // timer keeps itself alive until it is cancelled.
  static std::shared_ptr<TimerSource> start(std::shared_ptr<Executor> executor,
                                            std::shared_ptr<const Clock> clock,
                                            std::chrono::nanoseconds interval, Handler handler);
  void cancel() { cancelled_.store(true); }
  bool cancelled() const { return cancelled_.load(); }

 private:
  TimerSource(std::shared_ptr<Executor> executor, std::shared_ptr<const Clock> clock,
              std::chrono::nanoseconds interval, Handler handler);
  void fire();
  void scheduleNext();

  std::shared_ptr<Executor> executor_;
  std::shared_ptr<const Clock> clock_;
  const std::chrono::nanoseconds interval_;
  Handler handler_;
  int64_t start_ = 0;
  int64_t firings_ = 0;
  std::atomic<bool> cancelled_{false};
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_TIMERSOURCE_H_
