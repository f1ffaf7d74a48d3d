#include "collector/decode/EnvelopeDecoder.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <memory>

#include "QXLog/serial/Json.h"

namespace qxlog::collector {
namespace {

constexpr std::size_t kBlock = 16;

int base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool isSpace(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

struct CipherContextFree {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

}  // namespace

Decoded<std::string> base64Decode(std::string_view text) {
  std::string out;
  out.reserve(text.size() / 4 * 3);
  uint32_t quantum = 0;
  int digits = 0;
  int padding = 0;
  for (char c : text) {
    if (isSpace(c)) continue;
    if (c == '=') {
      // Padding completes the last quantum: "xx==" or "xxx=".
      if (digits + padding < 2) return Decoded<std::string>::failure("base64: misplaced padding");
      ++padding;
      if (digits + padding > 4) return Decoded<std::string>::failure("base64: too much padding");
      continue;
    }
    const int digit = base64Digit(c);
    if (digit < 0) return Decoded<std::string>::failure("base64: character outside the alphabet");
    if (padding > 0) return Decoded<std::string>::failure("base64: data after padding");
    quantum = (quantum << 6) | static_cast<uint32_t>(digit);
    if (++digits == 4) {
      out += static_cast<char>((quantum >> 16) & 0xff);
      out += static_cast<char>((quantum >> 8) & 0xff);
      out += static_cast<char>(quantum & 0xff);
      quantum = 0;
      digits = 0;
    }
  }
  if (digits == 0 && padding == 0) return Decoded<std::string>{std::move(out), {}};
  if (digits + padding != 4) return Decoded<std::string>::failure("base64: truncated quantum");
  quantum <<= 6 * padding;
  out += static_cast<char>((quantum >> 16) & 0xff);
  if (digits == 3) out += static_cast<char>((quantum >> 8) & 0xff);
  return Decoded<std::string>{std::move(out), {}};
}

Decoded<std::string> decryptLogData(std::string_view ciphertext, const NullableString& key) {
  if (ciphertext.empty() || ciphertext.size() % kBlock != 0) {
    return Decoded<std::string>::failure("aes: ciphertext is not a whole number of blocks");
  }
  if (ciphertext.size() > INT_MAX) return Decoded<std::string>::failure("aes: ciphertext too long");
  std::array<unsigned char, kBlock> keyBytes{};
  if (key) std::memcpy(keyBytes.data(), key->data(), std::min(key->size(), keyBytes.size()));

  std::unique_ptr<EVP_CIPHER_CTX, CipherContextFree> context(EVP_CIPHER_CTX_new());
  if (!context || EVP_DecryptInit_ex(context.get(), EVP_aes_128_ecb(), nullptr, keyBytes.data(),
                                     nullptr) != 1) {
    return Decoded<std::string>::failure("aes: cipher unavailable");
  }
  std::string out(ciphertext.size() + kBlock, '\0');
  auto* output = reinterpret_cast<unsigned char*>(out.data());
  int written = 0;
  if (EVP_DecryptUpdate(context.get(), output, &written,
                        reinterpret_cast<const unsigned char*>(ciphertext.data()),
                        static_cast<int>(ciphertext.size())) != 1) {
    return Decoded<std::string>::failure("aes: decryption failed");
  }
  int last = 0;
  if (EVP_DecryptFinal_ex(context.get(), output + written, &last) != 1) {
    return Decoded<std::string>::failure("aes: bad padding (wrong key?)");
  }
  out.resize(static_cast<std::size_t>(written) + static_cast<std::size_t>(last));
  return Decoded<std::string>{std::move(out), {}};
}

Decoded<std::string> gunzip(std::string_view compressed, std::size_t maxBytes) {
  if (compressed.size() < 18) return Decoded<std::string>::failure("gzip: too short for a member");
  if (compressed.size() > UINT_MAX) return Decoded<std::string>::failure("gzip: input too long");
  z_stream stream{};
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  stream.avail_in = static_cast<uInt>(compressed.size());
  // 15 + 16: the gzip wrapper only.
  if (inflateInit2(&stream, 31) != Z_OK) return Decoded<std::string>::failure("gzip: no inflater");
  std::string out;
  std::array<unsigned char, 65536> chunk;
  // Room for the most this member can inflate to (deflate reaches 1032:1),
  // within the limit, taken at once: growing by doubling would copy, and
  // hold twice the limit at the end. Untouched room costs no memory.
  if (maxBytes != kUnlimited) {
    out.reserve(std::min(maxBytes, compressed.size() * 1032) + chunk.size());
  }
  int status = Z_OK;
  while (status == Z_OK) {
    stream.next_out = chunk.data();
    stream.avail_out = static_cast<uInt>(chunk.size());
    status = inflate(&stream, Z_NO_FLUSH);
    out.append(reinterpret_cast<const char*>(chunk.data()), chunk.size() - stream.avail_out);
    if (out.size() > maxBytes) {
      inflateEnd(&stream);
      auto failure = Decoded<std::string>::failure("gzip: inflates past " +
                                                   std::to_string(maxBytes) + " bytes");
      failure.overLimit = true;
      return failure;
    }
  }
  const uInt leftover = stream.avail_in;
  const char* message = stream.msg;
  inflateEnd(&stream);
  if (status != Z_STREAM_END) {
    return Decoded<std::string>::failure(std::string("gzip: ") +
                                         (message ? message : "truncated stream"));
  }
  if (leftover != 0) return Decoded<std::string>::failure("gzip: bytes after the member");
  return Decoded<std::string>{std::move(out), {}};
}

Decoded<std::string> decodeLogDataText(std::string_view logData, const NullableString& key,
                                       std::size_t maxInflatedBytes) {
  Decoded<std::string> bytes = base64Decode(logData);
  if (!bytes) return bytes;
  Decoded<std::string> plain = decryptLogData(*bytes.value, key);
  if (!plain) return plain;
  return gunzip(*plain.value, maxInflatedBytes);
}

Decoded<Value> decodeLogData(std::string_view logData, const NullableString& key,
                             std::size_t maxInflatedBytes) {
  return decodeLogData(logData, key, DecodeLimits{maxInflatedBytes, {}});
}

Decoded<Value> decodeLogData(std::string_view logData, const NullableString& key,
                             const DecodeLimits& limits) {
  Decoded<std::string> text = decodeLogDataText(logData, key, limits.maxInflatedBytes);
  if (!text) {
    auto failure = Decoded<Value>::failure(std::move(text.error));
    failure.overLimit = text.overLimit;
    return failure;
  }
  if (std::string why = checkJsonShape(*text.value, limits.shape); !why.empty()) {
    auto failure = Decoded<Value>::failure("json: " + why);
    failure.overLimit = true;
    return failure;
  }
  std::optional<Value> body = serial::parseJson(*text.value);
  if (!body) return Decoded<Value>::failure("json: the body is not valid JSON");
  return Decoded<Value>{std::move(body), {}};
}

}  // namespace qxlog::collector
