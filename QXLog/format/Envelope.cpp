// The upload envelope: the common header and the records, sealed for the log
// server, with the day token and a plain copy of the body for the trace.
#include "QXLog/QXLogHelper.h"
#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/platform/Json.h"
#include "QXLog/platform/Text.h"
#include "QXLog/support/Codecs.h"

namespace platform = qxlog::platform;

namespace {

// Room for a typical record, so that the body is written without regrowth.
constexpr std::size_t kBytesPerRecord = 320;

}  // namespace

QXLogMessageFormat::Dictionary QXLogMessageFormat::combinationLog(const Array* records) const {
  // The body {"t": header, "a": records} is written once, straight from the
  // caller's array, and the same text is both sealed and kept in plain form.
  std::string body;
  body.reserve(512 + (records ? records->size() * kBytesPerRecord : 0));
  body += "{\"t\":";
  platform::appendJson(body, Value(publicLog()));
  body += ",\"a\":";
  if (records == nullptr) {
    body += "\"\"";
  } else {
    body += '[';
    for (std::size_t i = 0; i < records->size(); ++i) {
      if (i > 0) body += ',';
      platform::appendJson(body, (*records)[i]);
    }
    body += ']';
  }
  body += '}';

  NullableString logData = qxlog::support::sealJson(std::string_view(body));
  NullableString token = QXLogHelper::tokenString(platform::formatGeneral(serverInfoUpdateTime()));

  Dictionary envelope;
  envelope.reserve(3);
  envelope.setString("log_data", logData);
  envelope.setString("token", token);
  envelope.set("log_data_str", Value(std::move(body)));
  return envelope;
}
