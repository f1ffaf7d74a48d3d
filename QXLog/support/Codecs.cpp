// Byte codecs: MD5, gzip both ways, AES-128-ECB, base64 and the upload pipeline.
#include "QXLog/support/Codecs.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>

#include "QXLog/QXLogHelper.h"
#include "QXLog/serial/Json.h"

namespace qxlog::support {
namespace {

constexpr std::size_t kDeflateStep = 16384;
constexpr std::size_t kAesBlock = 16;

struct CipherContextFree {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

// The algorithms are fetched once: OpenSSL 3 looks a legacy EVP_aes_128_ecb()
// or EVP_md5() up again on every use, which costs more than hashing a token
// or sealing a small body. The fetched objects live as long as the process.
const EVP_CIPHER* aes128Ecb() {
  static EVP_CIPHER* const cipher = EVP_CIPHER_fetch(nullptr, "AES-128-ECB", nullptr);
  return cipher != nullptr ? cipher : EVP_aes_128_ecb();
}

const EVP_MD* md5() {
  static EVP_MD* const digest = EVP_MD_fetch(nullptr, "MD5", nullptr);
  return digest != nullptr ? digest : EVP_md5();
}

Bytef* bytesOf(std::string& buffer, uLong offset) {
  return reinterpret_cast<Bytef*>(buffer.data()) + offset;
}

}  // namespace

Bytes gzipBytes(std::string_view bytes) {
  if (bytes.empty()) return std::string();
  // zlib counts input in 32 bits; a larger body cannot be finished in one pass.
  if (bytes.size() > UINT_MAX) return std::nullopt;
  z_stream stream{};
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream.avail_in = static_cast<uInt>(bytes.size());
  // Default level, deflate, 15-bit window with the gzip wrapper (15 + 16).
  if (deflateInit2_(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY,
                    ZLIB_VERSION, static_cast<int>(sizeof(z_stream))) != Z_OK) {
    return std::nullopt;
  }
  // deflateBound is enough for one pass; a small body needs far less than a step.
  std::string out(std::min<std::size_t>(kDeflateStep, deflateBound(&stream, stream.avail_in)),
                  '\0');
  do {
    if (stream.total_out >= out.size()) out.resize(out.size() + kDeflateStep);
    stream.next_out = bytesOf(out, stream.total_out);
    stream.avail_out = static_cast<uInt>(out.size() - stream.total_out);
    if (deflate(&stream, Z_FINISH) == Z_STREAM_ERROR) {
      deflateEnd(&stream);
      return std::nullopt;
    }
  } while (stream.avail_out == 0);
  deflateEnd(&stream);
  out.resize(stream.total_out);
  return out;
}

std::array<unsigned char, 16> aesKey(const NullableString& key) {
  // A 16-byte key: the UTF-8 bytes, zero padded; bytes after the 16th are unused.
  std::array<unsigned char, 16> bytes{};
  if (key) std::memcpy(bytes.data(), key->data(), std::min(key->size(), bytes.size()));
  return bytes;
}

Bytes encryptBytes(std::string_view bytes, const NullableString& key) {
  const std::array<unsigned char, 16> keyBytes = aesKey(key);
  std::unique_ptr<EVP_CIPHER_CTX, CipherContextFree> context(EVP_CIPHER_CTX_new());
  if (!context ||
      EVP_EncryptInit_ex(context.get(), aes128Ecb(), nullptr, keyBytes.data(), nullptr) != 1) {
    return std::nullopt;
  }
  // One allocation: PKCS#7 adds 1 to 16 bytes.
  std::string out(bytes.size() + kAesBlock, '\0');
  auto* output = reinterpret_cast<unsigned char*>(out.data());
  const auto* input = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t written = 0;
  std::size_t offset = 0;
  // The cipher counts in int; feed it whole blocks of at most 1 GiB at a time.
  constexpr std::size_t kChunk = std::size_t{1} << 30;
  while (offset < bytes.size()) {
    const std::size_t chunk = std::min(kChunk, bytes.size() - offset);
    int produced = 0;
    if (EVP_EncryptUpdate(context.get(), output + written, &produced, input + offset,
                          static_cast<int>(chunk)) != 1) {
      return std::nullopt;
    }
    written += static_cast<std::size_t>(produced);
    offset += chunk;
  }
  int produced = 0;
  if (EVP_EncryptFinal_ex(context.get(), output + written, &produced) != 1) return std::nullopt;
  written += static_cast<std::size_t>(produced);
  out.resize(written);
  return out;
}

std::string base64Encode(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.resize((bytes.size() + 2) / 3 * 4);
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  char* o = out.data();
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t n = (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8) | in[i + 2];
    *o++ = kAlphabet[(n >> 18) & 63];
    *o++ = kAlphabet[(n >> 12) & 63];
    *o++ = kAlphabet[(n >> 6) & 63];
    *o++ = kAlphabet[n & 63];
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t n = uint32_t{in[i]} << 16;
    if (rest == 2) n |= uint32_t{in[i + 1]} << 8;
    *o++ = kAlphabet[(n >> 18) & 63];
    *o++ = kAlphabet[(n >> 12) & 63];
    *o++ = rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
    *o++ = '=';
  }
  return out;
}

NullableString sealJson(const std::optional<std::string_view>& json, const NullableString& key) {
  // Nil JSON compresses to nothing, and nothing still encrypts to one
  // padding block.
  Bytes compressed = json ? gzipBytes(*json) : std::nullopt;
  Bytes sealed = encryptBytes(compressed ? std::string_view(*compressed) : std::string_view(), key);
  if (!sealed) return std::nullopt;
  return base64Encode(*sealed);
}

std::optional<std::string> md5Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &digestLength, md5(), nullptr) != 1 ||
      digestLength != 16) {
    return std::nullopt;
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(32);
  for (unsigned int i = 0; i < digestLength; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

}  // namespace qxlog::support
