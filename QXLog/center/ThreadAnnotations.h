// The center's short names for clang's thread-safety annotations and the
// library's checked mutex (QXLog/platform/Mutex.h).
#ifndef QXLOG_CENTER_THREADANNOTATIONS_H_
#define QXLOG_CENTER_THREADANNOTATIONS_H_

#include "QXLog/platform/Mutex.h"
#include "QXLog/platform/ThreadAnnotations.h"

#define GUARDED_BY(x) QXLOG_GUARDED_BY(x)
#define REQUIRES(...) QXLOG_REQUIRES(__VA_ARGS__)
#define EXCLUDES(...) QXLOG_EXCLUDES(__VA_ARGS__)

namespace qxlog::center {

using platform::Mutex;
using platform::MutexLock;

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_THREADANNOTATIONS_H_
