// The clocks the library reads, as one part of its environment (Env), so that
// tests can run it on a virtual clock: the wall clock, the monotonic clock
// used for delays, and the local time zone.
#ifndef QXLOG_PLATFORM_CLOCK_H_
#define QXLOG_PLATFORM_CLOCK_H_

#include <cstdint>
#include <ctime>
#include <memory>

namespace qxlog::platform {

class Clock {
 public:
  virtual ~Clock() = default;
  // Seconds since 1970-01-01 00:00 UTC, with fraction.
  virtual double wallSeconds() const = 0;
  // Nanoseconds on a clock that never goes back; its origin is arbitrary.
  virtual int64_t monotonicNanos() const = 0;
  // The broken-down local time of a moment on the wall clock.
  virtual std::tm localTime(double wallSeconds) const = 0;
};

// The system's clocks and time zone; one object for the whole process.
std::shared_ptr<const Clock> systemClock();

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_CLOCK_H_
