// Where QXLogHelper's methods that read the running library (its queue
// files, clock and device facts, and the upload key) find it. The log center
// installs its source when it is created; until then they read the system's
// environment and no key. The source is a pair of plain functions, so that
// this layer never reaches up to the center.
#ifndef QXLOG_SUPPORT_HELPERSOURCE_H_
#define QXLOG_SUPPORT_HELPERSOURCE_H_

#include "QXLog/QXLogValue.h"

namespace qxlog::platform {
class Env;
}

namespace qxlog::support {

struct HelperSource {
  platform::Env& (*env)();
  NullableString (*uploadKey)();
};

// `source` must live as long as the process. May be called from any thread;
// a later call replaces an earlier one.
void installHelperSource(const HelperSource* source);

// The installed source's answers, or the defaults. Any thread.
platform::Env& helperEnv();
NullableString helperUploadKey();

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_HELPERSOURCE_H_
