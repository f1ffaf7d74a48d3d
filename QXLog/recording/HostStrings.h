// Conversions at the C boundary.
#ifndef QXLOG_RECORDING_HOSTSTRINGS_H_
#define QXLOG_RECORDING_HOSTSTRINGS_H_

#include <string_view>

#include "QXLog/QXLogValue.h"

namespace qxlog::recording {

// A host string: NULL is nil; invalid UTF-8 is replaced by U+FFFD.
NullableString fromHost(const char* text);
// A new C string for the host, released with QXLogFree; NULL for nil.
char* toHost(const NullableString& text);

}  // namespace qxlog::recording

#endif  // QXLOG_RECORDING_HOSTSTRINGS_H_
