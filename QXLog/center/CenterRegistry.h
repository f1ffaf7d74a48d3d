// Owns the log center instance. Tests replace it to simulate a restart of the
// process over the same Documents directory; this is not part of the public
// interface.
#ifndef QXLOG_CENTER_CENTERREGISTRY_H_
#define QXLOG_CENTER_CENTERREGISTRY_H_

#include "QXLog/QXLogCenter.h"

namespace qxlog {

class CenterRegistry {
 public:
  static QXLogCenter& instance();
  // Puts a new center, with a new format object and nothing loaded, in place of
  // the current one. The old one is kept alive, since tasks may still hold it.
  static QXLogCenter& replaceForTesting();
};

}  // namespace qxlog

#endif  // QXLOG_CENTER_CENTERREGISTRY_H_
