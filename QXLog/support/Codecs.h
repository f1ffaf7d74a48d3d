// The byte codecs behind QXLogHelper, over borrowed bytes, and the sealing of
// upload bodies shared by base64String and the envelope.
#ifndef QXLOG_SUPPORT_CODECS_H_
#define QXLOG_SUPPORT_CODECS_H_

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"

namespace qxlog::support {

using Bytes = std::optional<std::string>;

// A gzip stream of the bytes; empty bytes come back empty. Nothing when the
// compressor cannot start.
Bytes gzipBytes(std::string_view bytes);
// The 16 AES key bytes made from a key string: its UTF-8 form padded with
// zero bytes, or cut after 16 bytes; all zero for nil.
std::array<unsigned char, 16> aesKey(const NullableString& key);
// AES-128 in ECB mode with PKCS#7 padding. Nothing when the cipher fails.
Bytes encryptBytes(std::string_view bytes, const NullableString& key);
// Standard base64 with "=" padding, on one line.
std::string base64Encode(std::string_view bytes);

// The upload ciphertext of serialised JSON: gzip, then AES under `key`, then
// base64. Nil JSON still yields the ciphertext of an empty input, a
// 24-character string; nothing when the cipher fails.
NullableString sealJson(const std::optional<std::string_view>& json, const NullableString& key);

// Appended directly to the day string before hashing it into the day token.
inline constexpr std::string_view kTokenSalt = "Rk4TqzWmLpVhNc7XsJdBfYoE";

// The MD5 digest of the bytes in lower-case hex; nothing if the digest fails.
std::optional<std::string> md5Hex(std::string_view bytes);

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_CODECS_H_
