// A plain (not recursive) mutex that clang's thread-safety analysis knows,
// and its scoped lock.
#ifndef QXLOG_PLATFORM_MUTEX_H_
#define QXLOG_PLATFORM_MUTEX_H_

#include <mutex>

#include "QXLog/platform/AfterUnlock.h"
#include "QXLog/platform/ThreadAnnotations.h"

namespace qxlog::platform {

class QXLOG_CAPABILITY("mutex") Mutex {
 public:
  void lock() QXLOG_ACQUIRE() { mutex_.lock(); }
  void unlock() QXLOG_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for a scope. Console lines and posts to executors made
// meanwhile run after the release (AfterUnlock), so host code never runs
// under a library lock.
class QXLOG_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) QXLOG_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() QXLOG_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  AfterUnlock hostCallsAfterRelease_;  // built before the lock, ends after it
  Mutex& mutex_;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_MUTEX_H_
