// The library's millisecond clock and the local day.
#ifndef QXLOG_SUPPORT_TIME_H_
#define QXLOG_SUPPORT_TIME_H_

#include <cstdint>
#include <string>

namespace qxlog {

// Milliseconds since 1970, truncated toward zero.
uint64_t currentMillis();
// The same as "%llu" text.
std::string currentMillisText();

}  // namespace qxlog

#endif  // QXLOG_SUPPORT_TIME_H_
