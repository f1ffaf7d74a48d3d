// The download record.
#include "QXLog/QXLogMessageFormat.h"

QXLogMessageFormat::Dictionary QXLogMessageFormat::downLog(
    const NullableString&, const NullableString&, const NullableString&, const NullableString&,
    const NullableString&, const NullableString&) const {
  return Dictionary();
}
