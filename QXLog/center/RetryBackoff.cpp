#include "QXLog/center/RetryBackoff.h"

#include <algorithm>
#include <cmath>

namespace qxlog::center {

std::chrono::nanoseconds RetryBackoff::next(int failures, int64_t retryAfterSeconds) {
  if (retryAfterSeconds >= 0) {
    return std::chrono::seconds(
        std::min<int64_t>(retryAfterSeconds, static_cast<int64_t>(kMaxSeconds)));
  }
  const double span =
      std::min(kFirstSeconds * std::ldexp(1.0, std::clamp(failures, 0, 30)), kMaxSeconds);
  std::uniform_real_distribution<double> share(0.5, 1.0);
  return std::chrono::nanoseconds(static_cast<int64_t>(span * share(jitter_) * 1e9));
}

}  // namespace qxlog::center
