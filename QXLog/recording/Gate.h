// The readiness gate that every reporting function passes first. Until the
// host declares its context ready, a report re-schedules itself, with the
// arguments it captured, on the main queue five seconds later, again and again.
#ifndef QXLOG_RECORDING_GATE_H_
#define QXLOG_RECORDING_GATE_H_

#include <chrono>

#include "QXLog/QXLogExecutor.h"

namespace qxlog::recording {

inline constexpr std::chrono::nanoseconds kRetryDelay = std::chrono::seconds(5);

bool environmentReady();
void setEnvironmentReady(bool ready);

// Schedules the retry of a report that found the environment not ready.
void retryLater(platform::Task retry);

// The gate every reporting function passes first: false when the host's
// context is ready (the report goes on now); otherwise the same call,
// report(arguments...) with copies of the arguments, is scheduled to try
// again, and true tells the caller to stop.
template <typename Report, typename... Arguments>
bool deferUntilReady(Report report, const Arguments&... arguments) {
  if (environmentReady()) return false;
  retryLater([=] { report(arguments...); });
  return true;
}

}  // namespace qxlog::recording

#endif  // QXLOG_RECORDING_GATE_H_
