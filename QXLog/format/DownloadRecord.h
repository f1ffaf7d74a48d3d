// The download record, built from the host's report and the start time the
// host saved for the item (read by the caller, which owns the table).
#ifndef QXLOG_FORMAT_DOWNLOADRECORD_H_
#define QXLOG_FORMAT_DOWNLOADRECORD_H_

#include "QXLog/QXLogMessageFormat.h"

namespace qxlog::format {

struct DownloadReport {
  NullableString downLog;  // the item's identifier
  NullableString movieUrl;
  NullableString downsState;
  NullableString dataAmount;
  NullableString storagePath;
};

// `savedStartTime` is the table's entry for the item: milliseconds since 1970
// as text, nil when none was saved.
Dictionary downloadRecord(const QXLogMessageFormat& format, const DownloadReport& report,
                          const NullableString& savedStartTime);

}  // namespace qxlog::format

#endif  // QXLOG_FORMAT_DOWNLOADRECORD_H_
