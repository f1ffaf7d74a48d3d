// The upload envelope.
#include "QXLog/QXLogMessageFormat.h"

QXLogMessageFormat::Dictionary QXLogMessageFormat::combinationLog(const Array*) const {
  return Dictionary();
}
