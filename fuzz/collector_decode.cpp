// The collector's decoding of an upload's "log_data": any text as it comes,
// and any bytes sealed as the client seals them (gzip skipped on odd first
// bytes, so that the inflate and JSON steps see arbitrary input too), under
// small limits so that each limit is reached; and the shape check alone on
// the raw input.
#include <cstdint>
#include <string>

#include "QXLog/QXLogHelper.h"
#include "QXLog/support/Codecs.h"
#include "collector/decode/EnvelopeDecoder.h"

namespace {
constexpr const char* kKey = "0123456789abcdef";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  qxlog::collector::DecodeLimits limits{1 << 16, {}};
  limits.shape = {4, 8, 64, 32, 5};
  (void)qxlog::collector::checkJsonShape(input, limits.shape);
  (void)qxlog::collector::decodeLogData(input, std::string(kKey));
  (void)qxlog::collector::decodeLogData(input, std::nullopt);
  if (size == 0) return 0;
  std::string payload = input.substr(1);
  QXLogHelper::Data body =
      (data[0] & 1) != 0 ? QXLogHelper::Data(payload) : QXLogHelper::gzipDeflate(payload);
  QXLogHelper::Data sealed = QXLogHelper::data_AES256(body, std::string(kKey));
  if (!sealed) return 0;
  const std::string logData = qxlog::support::base64Encode(*sealed);
  (void)qxlog::collector::decodeLogData(logData, std::string(kKey));
  (void)qxlog::collector::decodeLogData(logData, std::string(kKey), limits);
  return 0;
}
