// Property names the format object does not know: ignored, as they always
// were, but named once on the console so that a misspelt one is seen.
#ifndef QXLOG_RECORDING_UNKNOWNPROPERTIES_H_
#define QXLOG_RECORDING_UNKNOWNPROPERTIES_H_

#include <string_view>

namespace qxlog::recording {

// One console line the first time each unknown name is given.
void traceUnknownProperty(std::string_view name);

}  // namespace qxlog::recording

#endif  // QXLOG_RECORDING_UNKNOWNPROPERTIES_H_
