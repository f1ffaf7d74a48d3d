// The upload envelope: the common header and the records, sealed for the log
// server, with the day token and a plain copy of the body for the trace.
#include "QXLog/format/Envelope.h"

#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Codecs.h"
#include "QXLog/support/Token.h"

namespace serial = qxlog::serial;

namespace {

using qxlog::Dictionary;
using qxlog::Value;

// Room for a typical record, so that the body is written without regrowth.
constexpr std::size_t kBytesPerRecord = 320;

// The body's text up to the records: {"t": header, "a":
std::string bodyHead(const QXLogMessageFormat& format, std::size_t recordBytes) {
  std::string body;
  body.reserve(512 + recordBytes);
  body += "{\"t\":";
  serial::appendJson(body, Value(format.publicLog()));
  body += ",\"a\":";
  return body;
}

// Closes the body; the same text is both sealed and kept in plain form.
Dictionary sealed(const QXLogMessageFormat& format, std::string body,
                  const qxlog::NullableString& key) {
  body += '}';
  qxlog::NullableString logData = qxlog::support::sealJson(std::string_view(body), key);
  qxlog::NullableString token = qxlog::support::dayToken(format.env().clock());

  Dictionary envelope;
  envelope.reserve(3);
  envelope.setString("log_data", logData);
  envelope.setString("token", token);
  envelope.set("log_data_str", Value(std::move(body)));
  return envelope;
}

}  // namespace

namespace qxlog::format {

Dictionary envelopeOfRecords(const QXLogMessageFormat& format, const Array* records,
                             const NullableString& key) {
  // The body {"t": header, "a": records} is written once, straight from the
  // caller's array.
  std::string body = bodyHead(format, records ? records->size() * kBytesPerRecord : 0);
  if (records == nullptr) {
    body += "\"\"";
  } else {
    body += '[';
    for (std::size_t i = 0; i < records->size(); ++i) {
      if (i > 0) body += ',';
      serial::appendJson(body, (*records)[i]);
    }
    body += ']';
  }
  return sealed(format, std::move(body), key);
}

Dictionary envelopeOfRecordsJson(const QXLogMessageFormat& format, std::string_view recordsJson,
                                 const NullableString& key) {
  std::string body = bodyHead(format, recordsJson.size());
  body += recordsJson;
  return sealed(format, std::move(body), key);
}

}  // namespace qxlog::format

// The envelope is sealed under this format object's own key, read afresh on
// each call.
QXLogMessageFormat::Dictionary QXLogMessageFormat::combinationLog(const Array* records) const {
  return qxlog::format::envelopeOfRecords(*this, records, logEncryptionKey());
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::combinationLogOfJson(
    std::string_view recordsJson) const {
  return qxlog::format::envelopeOfRecordsJson(*this, recordsJson, logEncryptionKey());
}
