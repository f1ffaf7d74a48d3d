#include "QXLog/recording/Gate.h"

#include <atomic>

#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Env.h"

namespace qxlog::recording {
namespace {

// The readiness flag. Relaxed ordering is enough: a report that misses a
// change is retried five seconds later.
std::atomic<bool> g_prepare_log_env{false};

}  // namespace

bool environmentReady() {
  return g_prepare_log_env.load(std::memory_order_relaxed);
}

void setEnvironmentReady(bool ready) {
  g_prepare_log_env.store(ready, std::memory_order_relaxed);
}

void retryLater(platform::Task retry) {
  QXLogCenter::center().env().mainQueue()->post(std::move(retry), kRetryDelay);
}

}  // namespace qxlog::recording
