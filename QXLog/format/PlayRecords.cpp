// Play header, play-action and trailer records.
#include "QXLog/QXLogMessageFormat.h"

QXLogMessageFormat::Dictionary QXLogMessageFormat::playLog(const NullableString&,
                                                           const NullableString&,
                                                           const NullableString&, bool,
                                                           const NullableString&,
                                                           const NullableString&) const {
  return Dictionary();
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::playActionLog(
    const NullableString&, const NullableString&, const NullableString&, const NullableString&,
    const NullableString&, const NullableString&, const NullableString&) {
  return Dictionary();
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::playTrailerLog(
    const NullableString&, const NullableString&, const NullableString&, const NullableString&,
    const NullableString&, const NullableString&, const NullableString&) const {
  return Dictionary();
}
