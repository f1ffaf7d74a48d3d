// What an upload's completion needs to know about the upload it answers.
#ifndef QXLOG_CENTER_OUTGOINGUPLOAD_H_
#define QXLOG_CENTER_OUTGOINGUPLOAD_H_

#include "QXLog/QXLogCenter.h"

// Everything an upload's completion needs: what was sent, where, and the
// records to restore if the request fails.
struct QXLogCenter::OutgoingUpload {
  Dictionary envelope;
  NullableString url;  // resolved; nil when no URL was known
  bool announceGzip = false;
  bool diagnosis = false;
  // Described delivery of an ordinary batch: the records left the queue with
  // the request, are restored from `snapshot` on a failure, and the answer's
  // outcome is reported for them.
  bool carriesQueue = false;
  Array snapshot;
};

#endif  // QXLOG_CENTER_OUTGOINGUPLOAD_H_
