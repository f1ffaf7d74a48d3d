#include "QXLog/support/Time.h"

namespace qxlog::support {

uint64_t currentMillis(const platform::Clock& clock) {
  double millis = clock.wallSeconds() * 1000.0;
  // A clock set before 1970 reads as 0 rather than wrapping.
  if (!(millis > 0.0)) return 0;
  if (millis >= 18446744073709551616.0) return UINT64_MAX;
  return static_cast<uint64_t>(millis);
}

std::string currentMillisText(const platform::Clock& clock) {
  return std::to_string(currentMillis(clock));
}

}  // namespace qxlog::support
