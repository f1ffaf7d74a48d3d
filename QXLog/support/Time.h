// The library's millisecond clock and the local day.
#ifndef QXLOG_SUPPORT_TIME_H_
#define QXLOG_SUPPORT_TIME_H_

#include <cstdint>
#include <string>

#include "QXLog/platform/Clock.h"

namespace qxlog::support {

// Milliseconds since 1970 on the clock's wall clock, truncated toward zero.
uint64_t currentMillis(const platform::Clock& clock);
// The same as "%llu" text.
std::string currentMillisText(const platform::Clock& clock);

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_TIME_H_
