// Every reading of time goes through one seam, so that tests can run the
// library on a virtual clock: the wall clock, the monotonic clock used for
// delays, and the local time zone.
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

// The clock in force. Defaults to the system's clocks and time zone.
std::shared_ptr<Clock> clock();
void setClock(std::shared_ptr<Clock> clock);  // nullptr restores the system clock

// Shorthands for the clock in force.
double wallSeconds();
int64_t monotonicNanos();

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_CLOCK_H_
