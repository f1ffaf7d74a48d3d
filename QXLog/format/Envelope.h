// The upload envelope: the common header and the records, serialised once,
// sealed under the key the caller gives, with the day token beside it and a
// plain copy of the body ("log_data_str") for the trace.
#ifndef QXLOG_FORMAT_ENVELOPE_H_
#define QXLOG_FORMAT_ENVELOPE_H_

#include <string_view>

#include "QXLog/QXLogMessageFormat.h"

namespace qxlog::format {

// The records of `records`, or "" in their place when it is null.
Dictionary envelopeOfRecords(const QXLogMessageFormat& format, const Array* records,
                             const NullableString& key);
// Records already serialised as a JSON array.
Dictionary envelopeOfRecordsJson(const QXLogMessageFormat& format, std::string_view recordsJson,
                                 const NullableString& key);

}  // namespace qxlog::format

#endif  // QXLOG_FORMAT_ENVELOPE_H_
