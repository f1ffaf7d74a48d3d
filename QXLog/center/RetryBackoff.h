// How long an upload that failed waits before it is tried again: 1 s doubling
// with each failure in a row up to 5 minutes, each wait drawn from the upper
// half of that span so that many hosts do not retry in step. A server's
// "Retry-After" takes the drawn wait's place, capped at the same 5 minutes.
//
// Not thread-safe: its owner guards it with its own lock.
#ifndef QXLOG_CENTER_RETRYBACKOFF_H_
#define QXLOG_CENTER_RETRYBACKOFF_H_

#include <chrono>
#include <cstdint>
#include <random>

namespace qxlog::center {

class RetryBackoff {
 public:
  static constexpr double kFirstSeconds = 1;
  static constexpr double kMaxSeconds = 300;

  explicit RetryBackoff(uint32_t seed = std::random_device{}()) : jitter_(seed) {}

  // The wait after `failures` failures in a row (0 for the first); a
  // non-negative `retryAfterSeconds` is the server's own word.
  std::chrono::nanoseconds next(int failures, int64_t retryAfterSeconds = -1);

 private:
  std::minstd_rand jitter_;
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_RETRYBACKOFF_H_
