#include "QXLog/center/SealedBatch.h"

#include <zlib.h>

namespace qxlog::center {
namespace {

constexpr std::string_view kMagic = "QXB1";

void putU64(std::string& out, uint64_t value) {
  for (int i = 0; i < 8; ++i) out += static_cast<char>((value >> (8 * i)) & 0xff);
}

// Reads 8 bytes little-endian at `at`, moving it on; false when too short.
bool getU64(std::string_view bytes, std::size_t& at, uint64_t& value) {
  if (bytes.size() - at < 8) return false;
  value = 0;
  for (int i = 0; i < 8; ++i) {
    value |= static_cast<uint64_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
  }
  at += 8;
  return true;
}

bool getText(std::string_view bytes, std::size_t& at, std::string& text) {
  uint64_t length = 0;
  if (!getU64(bytes, at, length) || bytes.size() - at < length) return false;
  text.assign(bytes.substr(at, length));
  at += length;
  return true;
}

uint64_t crcOf(std::string_view bytes) {
  uLong crc = crc32(0L, Z_NULL, 0);
  while (!bytes.empty()) {
    std::size_t step = std::min<std::size_t>(bytes.size(), 1u << 30);
    crc = crc32(crc, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(step));
    bytes.remove_prefix(step);
  }
  return crc;
}

}  // namespace

std::string SealedBatch::encode() const {
  std::string out(kMagic);
  putU64(out, end.segment);
  putU64(out, end.offset);
  putU64(out, records);
  putU64(out, logData.size());
  out += logData;
  putU64(out, token.size());
  out += token;
  putU64(out, crcOf(out));
  return out;
}

std::optional<SealedBatch> SealedBatch::decode(std::string_view bytes) {
  if (bytes.size() > kMaxFileBytes || bytes.substr(0, kMagic.size()) != kMagic) return std::nullopt;
  SealedBatch batch;
  std::size_t at = kMagic.size();
  uint64_t records = 0;
  uint64_t crc = 0;
  if (!getU64(bytes, at, batch.end.segment) || !getU64(bytes, at, batch.end.offset) ||
      !getU64(bytes, at, records) || !getText(bytes, at, batch.logData) ||
      !getText(bytes, at, batch.token)) {
    return std::nullopt;
  }
  std::size_t body = at;
  if (!getU64(bytes, at, crc) || at != bytes.size() || crc != crcOf(bytes.substr(0, body))) {
    return std::nullopt;
  }
  if (records == 0 || records > bytes.size()) return std::nullopt;
  batch.records = static_cast<std::size_t>(records);
  return batch;
}

}  // namespace qxlog::center
