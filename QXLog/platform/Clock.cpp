#include "QXLog/platform/Clock.h"

#include <chrono>
#include <cmath>
#include <mutex>

namespace qxlog::platform {
namespace {

class SystemClock final : public Clock {
 public:
  double wallSeconds() const override {
    auto since = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(since).count();
  }
  int64_t monotonicNanos() const override {
    auto since = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(since).count();
  }
  std::tm localTime(double wallSeconds) const override {
    std::time_t seconds = static_cast<std::time_t>(std::floor(wallSeconds));
    std::tm result{};
    localtime_r(&seconds, &result);
    return result;
  }
};

std::mutex g_mutex;
// Never destroyed: worker threads may still read the clock while the process
// runs its exit handlers.
std::shared_ptr<Clock>& installed() {
  static auto* clock = new std::shared_ptr<Clock>(std::make_shared<SystemClock>());
  return *clock;
}

}  // namespace

std::shared_ptr<Clock> clock() {
  std::lock_guard lock(g_mutex);
  return installed();
}

void setClock(std::shared_ptr<Clock> clock) {
  std::lock_guard lock(g_mutex);
  installed() = clock ? std::move(clock) : std::make_shared<SystemClock>();
}

double wallSeconds() {
  return clock()->wallSeconds();
}
int64_t monotonicNanos() {
  return clock()->monotonicNanos();
}

}  // namespace qxlog::platform
