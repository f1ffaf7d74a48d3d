// Host code never runs under a library lock. While a thread holds one of the
// library's locks it opens an AfterUnlock scope; calls into the host made
// inside it (a console line, a post to a host's executor) go through
// runOrDefer and are held back, in order, until the thread's outermost scope
// ends, after the lock is released. A console handler or an executor may
// therefore call back into the library, which takes its locks again.
#ifndef QXLOG_PLATFORM_AFTERUNLOCK_H_
#define QXLOG_PLATFORM_AFTERUNLOCK_H_

#include <functional>

namespace qxlog::platform {

class AfterUnlock {
 public:
  AfterUnlock();
  // The outermost scope of the thread runs what was held back.
  ~AfterUnlock();
  AfterUnlock(const AfterUnlock&) = delete;
  AfterUnlock& operator=(const AfterUnlock&) = delete;

  // Runs `call` now, or at the end of this thread's outermost scope.
  static void runOrDefer(std::function<void()> call);
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_AFTERUNLOCK_H_
