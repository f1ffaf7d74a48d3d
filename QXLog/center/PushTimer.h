#ifndef QXLOG_CENTER_PUSHTIMER_H_
#define QXLOG_CENTER_PUSHTIMER_H_

#include <cstdint>

#include "QXLog/QXLogValue.h"

namespace qxlog::center {

// The push interval of a settings answer (milliseconds, as text or number) in
// whole seconds, truncated toward zero: the N of the push timer.
int32_t pushIntervalSeconds(const Value& pushIntervalTime);

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_PUSHTIMER_H_
