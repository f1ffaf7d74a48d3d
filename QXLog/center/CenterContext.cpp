// The public methods whose described behaviour reads the log center's state
// (its key, its start-time table) from a lower layer. They read it here, in
// the center's layer, and hand it down as an argument, so that the format and
// support code never reach up to the center.
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/format/DownloadRecord.h"
#include "QXLog/format/Envelope.h"
#include "QXLog/serial/Json.h"
#include "QXLog/support/Codecs.h"

namespace {

// The key the envelope pipeline seals with: always the center's.
qxlog::NullableString centerKey() {
  return QXLogCenter::center().format().logEncryptionKey();
}

}  // namespace

QXLogMessageFormat::Dictionary QXLogMessageFormat::combinationLog(const Array* records) const {
  return qxlog::format::envelopeOfRecords(*this, records, centerKey());
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::combinationLogOfJson(
    std::string_view recordsJson) const {
  return qxlog::format::envelopeOfRecordsJson(*this, recordsJson, centerKey());
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::downLog(
    const NullableString& downLog, const NullableString& movieUrl, const NullableString& downsState,
    const NullableString& dataAmount, const NullableString& storagePath,
    const NullableString& /*movieName: deliberately not recorded*/) const {
  NullableString savedStart;
  if (downLog) savedStart = QXLogCenter::center().getActionStartTime(*downLog);
  return qxlog::format::downloadRecord(
      *this, {downLog, movieUrl, downsState, dataAmount, storagePath}, savedStart);
}

QXLogHelper::NullableString QXLogHelper::base64String(const Value& object) {
  // Every value serialises, so the JSON step here never yields nil.
  const std::string json = qxlog::serial::toJson(object);
  return qxlog::support::sealJson(std::string_view(json), centerKey());
}
