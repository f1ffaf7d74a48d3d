// Diagnosis report and body.
#include "QXLog/QXLogMessageFormat.h"

QXLogMessageFormat::Dictionary QXLogMessageFormat::diagnosisLog(
    const NullableString&, const NullableString&, const NullableString&, const NullableString&,
    const NullableString&, const NullableString&, const NullableString&,
    const NullableString&) const {
  return Dictionary();
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::diagnosisOfCompleteInformation(
    const Value&) const {
  return Dictionary();
}
