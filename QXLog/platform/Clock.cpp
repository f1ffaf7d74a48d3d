#include "QXLog/platform/Clock.h"

#include <chrono>
#include <cmath>

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

}  // namespace

std::shared_ptr<const Clock> systemClock() {
  // Never destroyed: worker threads may still read the clock while the process
  // runs its exit handlers.
  static auto* clock = new std::shared_ptr<const Clock>(std::make_shared<SystemClock>());
  return *clock;
}

}  // namespace qxlog::platform
