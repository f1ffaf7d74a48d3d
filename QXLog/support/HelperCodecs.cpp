// QXLogHelper's codec methods: MD5 text, gzip both ways and AES, over the
// byte codecs, with the nil handling of the helper's interface.
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "QXLog/QXLogHelper.h"
#include "QXLog/support/Codecs.h"

namespace support = qxlog::support;

QXLogHelper::NullableString QXLogHelper::md5String(const NullableString& text) {
  if (!text || text->empty()) return std::nullopt;
  // Hashed as a C string: an embedded NUL ends the input.
  return support::md5Hex(std::string_view(text->c_str(), std::strlen(text->c_str())));
}

QXLogHelper::Data QXLogHelper::gzipDeflate(const Data& data) {
  // Empty (or nil) input comes back as it was, without a gzip header.
  if (!data || data->empty()) return data;
  return support::gzipBytes(*data);
}

QXLogHelper::Data QXLogHelper::gzipInflate(const Data& data) {
  if (!data || data->empty()) return data;
  if (data->size() > UINT_MAX) return std::nullopt;
  const std::size_t half = data->size() / 2;
  std::string out(data->size() + half, '\0');
  z_stream stream{};
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data->data()));
  stream.avail_in = static_cast<uInt>(data->size());
  // 15 + 32: a gzip or a zlib header, whichever is there.
  if (inflateInit2_(&stream, 47, ZLIB_VERSION, static_cast<int>(sizeof(z_stream))) != Z_OK) {
    return std::nullopt;
  }
  int status = Z_OK;
  do {
    // For one byte of input half is 0: the buffer stops growing, inflate makes
    // no progress and answers Z_BUF_ERROR, which ends the loop.
    if (stream.total_out >= out.size()) out.resize(out.size() + half);
    stream.next_out = reinterpret_cast<Bytef*>(out.data()) + stream.total_out;
    stream.avail_out =
        static_cast<uInt>(std::min<std::size_t>(out.size() - stream.total_out, UINT_MAX));
    status = inflate(&stream, Z_SYNC_FLUSH);
  } while (status == Z_OK);
  const int ended = inflateEnd(&stream);
  if (status != Z_STREAM_END || ended != Z_OK) return std::nullopt;
  out.resize(stream.total_out);
  return out;
}

QXLogHelper::Data QXLogHelper::data_AES256(const Data& data, const NullableString& key) {
  // Despite the name, AES-128: only 16 key bytes are handed to the cipher.
  return support::encryptBytes(data ? std::string_view(*data) : std::string_view(), key);
}
