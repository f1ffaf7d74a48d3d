// Clang's thread-safety annotations: with -Wthread-safety the compiler checks
// that a member marked QXLOG_GUARDED_BY(mu) is only touched while `mu` is
// held, and that a function marked QXLOG_EXCLUDES(mu) is not called with it
// held. Other compilers see nothing.
#ifndef QXLOG_PLATFORM_THREADANNOTATIONS_H_
#define QXLOG_PLATFORM_THREADANNOTATIONS_H_

#if defined(__clang__)
#define QXLOG_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QXLOG_THREAD_ANNOTATION(x)
#endif

#define QXLOG_CAPABILITY(name) QXLOG_THREAD_ANNOTATION(capability(name))
#define QXLOG_SCOPED_CAPABILITY QXLOG_THREAD_ANNOTATION(scoped_lockable)
#define QXLOG_GUARDED_BY(mu) QXLOG_THREAD_ANNOTATION(guarded_by(mu))
#define QXLOG_REQUIRES(...) QXLOG_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QXLOG_EXCLUDES(...) QXLOG_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QXLOG_ACQUIRE(...) QXLOG_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QXLOG_RELEASE(...) QXLOG_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

#endif  // QXLOG_PLATFORM_THREADANNOTATIONS_H_
