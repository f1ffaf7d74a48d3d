// Owns the log center instance, created on first use on the system's
// environment. A host or a test that wants the center on another environment
// (its own clock, queues, transport or files) gives it with createWithEnv
// before the first use. Tests also replace the center to simulate a restart
// of the process over the same environment. Not part of the C interface.
#ifndef QXLOG_CENTER_CENTERREGISTRY_H_
#define QXLOG_CENTER_CENTERREGISTRY_H_

#include <memory>

#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Env.h"

namespace qxlog::center {

class CenterRegistry {
 public:
  static QXLogCenter& instance();
  // The center when one was created, without creating it.
  static QXLogCenter* existing();
  // Creates the center on `env`; false, and nothing changes, when it exists.
  static bool createWithEnv(std::shared_ptr<platform::Env> env);
  // Puts a new center, with a new format object and nothing loaded, in place
  // of the current one, on `env` or else on the environment it had. The old
  // one is kept alive, since tasks may still hold it.
  static QXLogCenter& replaceForTesting(std::shared_ptr<platform::Env> env = nullptr);

 private:
  static QXLogCenter* createdOn(std::shared_ptr<platform::Env> env);
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_CENTERREGISTRY_H_
