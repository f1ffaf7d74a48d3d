// Server-side reading of an upload's "log_data": base64, then AES-128 in ECB
// mode with PKCS#7 padding under the host's key, then gunzip, then JSON.
// The client library only ever seals; this is the other half.
#ifndef QXLOG_COLLECTOR_DECODE_ENVELOPEDECODER_H_
#define QXLOG_COLLECTOR_DECODE_ENVELOPEDECODER_H_

#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"
#include "collector/decode/JsonShape.h"

namespace qxlog::collector {

// The outcome of a decoding step: a value, or an error text saying which
// step failed and why, and whether it failed on a limit rather than on
// malformed input.
template <typename T>
struct Decoded {
  std::optional<T> value;
  std::string error;
  bool overLimit = false;

  static Decoded failure(std::string why) { return Decoded{std::nullopt, std::move(why)}; }
  explicit operator bool() const { return value.has_value(); }
};

// Standard base64 with "=" padding; line breaks and other whitespace are
// skipped. Fails on any other character outside the alphabet, on misplaced
// padding and on a length that is not a whole number of quanta.
Decoded<std::string> base64Decode(std::string_view text);
// AES-128-ECB decryption with PKCS#7 padding checked and removed. The key
// string becomes 16 bytes as on the client: UTF-8, zero padded or cut; nil is
// 16 zero bytes.
Decoded<std::string> decryptLogData(std::string_view ciphertext, const NullableString& key);
// No output limit.
inline constexpr std::size_t kUnlimited = static_cast<std::size_t>(-1);

// One complete gzip member, nothing after it, inflating to at most
// `maxBytes` (a small upload can inflate a thousandfold); the error then
// starts "gzip: inflates past".
Decoded<std::string> gunzip(std::string_view compressed, std::size_t maxBytes = kUnlimited);

// What one body may become once decoded.
struct DecodeLimits {
  std::size_t maxInflatedBytes = kUnlimited;
  JsonShapeLimits shape;
};

// The JSON text of an upload body.
Decoded<std::string> decodeLogDataText(std::string_view logData, const NullableString& key,
                                       std::size_t maxInflatedBytes = kUnlimited);
// The upload body itself, normally {"t": header, "a": records}, or a
// diagnosis report. Its shape is checked against `limits.shape` before it
// is parsed; the error then starts "json: " and names the limit.
Decoded<Value> decodeLogData(std::string_view logData, const NullableString& key,
                             const DecodeLimits& limits);
// The same with the default shape limits.
Decoded<Value> decodeLogData(std::string_view logData, const NullableString& key,
                             std::size_t maxInflatedBytes = kUnlimited);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_DECODE_ENVELOPEDECODER_H_
