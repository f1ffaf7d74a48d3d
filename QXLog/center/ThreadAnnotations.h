// Clang's thread-safety analysis (-Wthread-safety): which lock guards which
// field and which functions expect it held. No-ops for other compilers.
#ifndef QXLOG_CENTER_THREADANNOTATIONS_H_
#define QXLOG_CENTER_THREADANNOTATIONS_H_

#if defined(__clang__)
#define QXLOG_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QXLOG_THREAD_ANNOTATION(x)
#endif

#define GUARDED_BY(x) QXLOG_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) QXLOG_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) QXLOG_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define CAPABILITY(x) QXLOG_THREAD_ANNOTATION(capability(x))
#define ACQUIRE(...) QXLOG_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QXLOG_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define SCOPED_CAPABILITY QXLOG_THREAD_ANNOTATION(scoped_lockable)

#include <mutex>

namespace qxlog::center {

// std::mutex as a capability the analysis knows.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_THREADANNOTATIONS_H_
