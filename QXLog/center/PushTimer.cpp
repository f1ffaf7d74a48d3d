// The push timer: counts down and then folds and submits the pending records
// once. The same N serves as the interval in seconds and as the countdown, so
// the submission comes N * N seconds after the start.
#include "QXLog/center/PushTimer.h"

#include <functional>
#include <limits>
#include <memory>
#include <mutex>

#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Env.h"
#include "QXLog/platform/TimerSource.h"
#include "QXLog/serial/Text.h"

namespace platform = qxlog::platform;
namespace serial = qxlog::serial;

int32_t qxlog::center::pushIntervalSeconds(const Value& pushIntervalTime) {
  int64_t seconds = serial::integerValue(pushIntervalTime) / 1000;
  if (seconds > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  if (seconds < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(seconds);
}

void QXLogCenter::setPushTimerHandler(std::function<void()> handler) {
  std::lock_guard lock(handlerMutex_);
  pushTimerHandler_ = std::move(handler);
}

void QXLogCenter::startTime(int32_t seconds) {
  // Touched only by this timer's firings, which never overlap.
  auto countdown = std::make_shared<int32_t>(seconds);
  auto handler = [this, countdown](platform::TimerSource& timer) {
    if (*countdown >= 1) {
      --*countdown;
      return;
    }
    timer.cancel();
    env().mainQueue()->async([this] {
      std::function<void()> beforeSubmission;
      {
        std::lock_guard lock(handlerMutex_);
        beforeSubmission = pushTimerHandler_;
      }
      if (beforeSubmission) beforeSubmission();
      if (playCount() != 0) makePlayLog();
      submitAllLog();
    });
  };
  platform::TimerSource::start(env().globalQueue(), env().sharedClock(),
                               std::chrono::seconds(static_cast<int64_t>(seconds)), handler);
}
