#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include <array>
#include <cstdint>
#include <random>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Json.h"
#include "QXLog/support/Codecs.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/TestPlatform.h"

namespace qxlog {
namespace {

using namespace std::string_literals;

std::string randomBytes(std::size_t count, uint32_t seed) {
  std::mt19937 engine(seed);
  std::string bytes(count, '\0');
  for (char& c : bytes) c = static_cast<char>(engine() & 0xff);
  return bytes;
}

// A plain zlib inflate that accepts exactly one gzip member and nothing after it.
std::optional<std::string> inflateOneGzipMember(const std::string& stream) {
  z_stream z{};
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
  z.avail_in = static_cast<uInt>(stream.size());
  if (inflateInit2(&z, 16 + 15) != Z_OK) return std::nullopt;
  std::string out;
  std::array<unsigned char, 4096> chunk;
  int status = Z_OK;
  while (status == Z_OK) {
    z.next_out = chunk.data();
    z.avail_out = chunk.size();
    status = inflate(&z, Z_NO_FLUSH);
    out.append(reinterpret_cast<char*>(chunk.data()), chunk.size() - z.avail_out);
  }
  const uInt left = z.avail_in;
  inflateEnd(&z);
  if (status != Z_STREAM_END || left != 0) return std::nullopt;
  return out;
}

std::string zlibCompress(const std::string& data) {
  uLongf size = compressBound(data.size());
  std::string out(size, '\0');
  EXPECT_EQ(compress2(reinterpret_cast<Bytef*>(out.data()), &size,
                      reinterpret_cast<const Bytef*>(data.data()), data.size(), 6),
            Z_OK);
  out.resize(size);
  return out;
}

// AES-128-ECB under explicit key bytes; `pad` selects PKCS#7 handling.
std::optional<std::string> aesEcb(bool encrypt, const std::string& data, const std::string& key,
                                  bool pad = true) {
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  std::string out(data.size() + 16, '\0');
  int written = 0;
  int last = 0;
  const auto* keyBytes = reinterpret_cast<const unsigned char*>(key.data());
  auto* o = reinterpret_cast<unsigned char*>(out.data());
  const auto* in = reinterpret_cast<const unsigned char*>(data.data());
  bool ok = EVP_CipherInit_ex(context, EVP_aes_128_ecb(), nullptr, keyBytes, nullptr,
                              encrypt ? 1 : 0) == 1 &&
            EVP_CIPHER_CTX_set_padding(context, pad ? 1 : 0) == 1 &&
            EVP_CipherUpdate(context, o, &written, in, static_cast<int>(data.size())) == 1 &&
            EVP_CipherFinal_ex(context, o + written, &last) == 1;
  EVP_CIPHER_CTX_free(context);
  if (!ok) return std::nullopt;
  out.resize(static_cast<std::size_t>(written + last));
  return out;
}

TEST(Md5String, MatchesTheRfc1321TestSuite) {
  const std::pair<const char*, const char*> vectors[] = {
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& [input, digest] : vectors) {
    EXPECT_EQ(QXLogHelper::md5String(std::string(input)), std::string(digest)) << input;
  }
}

TEST(Md5String, NilAndEmptyGiveNilAndAnEmbeddedNulEndsTheInput) {
  EXPECT_EQ(QXLogHelper::md5String(std::nullopt), std::nullopt);
  EXPECT_EQ(QXLogHelper::md5String(""s), std::nullopt);
  // Only "a" is hashed; a leading NUL leaves the digest of no bytes at all.
  EXPECT_EQ(QXLogHelper::md5String("a\0bc"s), "0cc175b9c0f1b6a831c399e269772661"s);
  EXPECT_EQ(QXLogHelper::md5String("\0x"s), "d41d8cd98f00b204e9800998ecf8427e"s);
  // Non-ASCII text is hashed as its UTF-8 bytes (md5 of "无运营商" in UTF-8).
  EXPECT_EQ(QXLogHelper::md5String("无运营商"s), "bd840c8801c74df2797edea7667ae1e7"s);
}

TEST(GzipDeflate, EmptyInputComesBackUnchanged) {
  EXPECT_EQ(QXLogHelper::gzipDeflate(""s), ""s);
  EXPECT_EQ(QXLogHelper::gzipDeflate(std::nullopt), std::nullopt);
  EXPECT_EQ(QXLogHelper::gzipInflate(""s), ""s);
  EXPECT_EQ(QXLogHelper::gzipInflate(std::nullopt), std::nullopt);
}

TEST(GzipDeflate, WritesOneGzipStreamThatRoundTrips) {
  const std::string text = R"({"t":{"t_1":"2"},"a":[{"a_t":"2","a_0":"play"}]})";
  const auto compressed = QXLogHelper::gzipDeflate(text);
  ASSERT_TRUE(compressed);
  ASSERT_GE(compressed->size(), 18u);
  EXPECT_EQ(static_cast<unsigned char>((*compressed)[0]), 0x1f);
  EXPECT_EQ(static_cast<unsigned char>((*compressed)[1]), 0x8b);
  EXPECT_EQ((*compressed)[2], 8) << "deflate method";
  EXPECT_EQ(inflateOneGzipMember(*compressed), text);
  EXPECT_EQ(QXLogHelper::gzipInflate(compressed), text);
}

TEST(GzipDeflate, GrowsPastOneBufferForIncompressibleInput) {
  // Random bytes do not compress: the output needs several 16384-byte steps.
  const std::string noise = randomBytes(70000, 7);
  const auto compressed = QXLogHelper::gzipDeflate(noise);
  ASSERT_TRUE(compressed);
  EXPECT_GT(compressed->size(), 4 * 16384u);
  EXPECT_EQ(inflateOneGzipMember(*compressed), noise);
  EXPECT_EQ(QXLogHelper::gzipInflate(compressed), noise);

  // Output of exactly one buffer's size must still finish the stream.
  for (std::size_t size = 16300; size <= 16400; ++size) {
    const std::string slice = noise.substr(0, size);
    const auto small = QXLogHelper::gzipDeflate(slice);
    ASSERT_TRUE(small);
    ASSERT_EQ(inflateOneGzipMember(*small), slice) << size;
  }
}

TEST(GzipInflate, ExpandsHighlyCompressedInputByRepeatedGrowth) {
  // 2 MB of one letter compress to a few kB: the buffer grows many times.
  const std::string zeros(2 << 20, 'z');
  const auto compressed = QXLogHelper::gzipDeflate(zeros);
  ASSERT_TRUE(compressed);
  EXPECT_LT(compressed->size(), 8192u);
  EXPECT_EQ(QXLogHelper::gzipInflate(compressed), zeros);
}

TEST(GzipInflate, AcceptsAZlibStream) {
  const std::string text = "a zlib-wrapped payload, a zlib-wrapped payload";
  const std::string wrapped = zlibCompress(text);
  ASSERT_EQ(static_cast<unsigned char>(wrapped[0]), 0x78);
  EXPECT_EQ(QXLogHelper::gzipInflate(wrapped), text);
}

TEST(GzipInflate, RejectsWhatIsNotACompleteStream) {
  EXPECT_EQ(QXLogHelper::gzipInflate("this is not compressed at all"s), std::nullopt);
  EXPECT_EQ(QXLogHelper::gzipInflate("x"s), std::nullopt);
  EXPECT_EQ(QXLogHelper::gzipInflate("\x1f"s), std::nullopt);
  EXPECT_EQ(QXLogHelper::gzipInflate(randomBytes(1000, 3)), std::nullopt);
  const auto compressed = QXLogHelper::gzipDeflate(randomBytes(5000, 11));
  ASSERT_TRUE(compressed);
  EXPECT_EQ(QXLogHelper::gzipInflate(compressed->substr(0, compressed->size() - 9)), std::nullopt);
  std::string corrupt = *compressed;
  corrupt[corrupt.size() - 5] ^= 0x40;  // the length in the trailer
  EXPECT_EQ(QXLogHelper::gzipInflate(corrupt), std::nullopt);
}

TEST(DataAes, OnlyTheFirstSixteenKeyBytesCount) {
  const std::string plain = "records of one batch, records of one batch";
  const std::string key16 = "0123456789abcdef";
  const auto base = QXLogHelper::data_AES256(plain, key16);
  ASSERT_TRUE(base);
  EXPECT_EQ(QXLogHelper::data_AES256(plain, key16 + "g"), base);
  EXPECT_EQ(QXLogHelper::data_AES256(plain, key16 + "0123456789abcdef"), base);
  EXPECT_EQ(QXLogHelper::data_AES256(plain, key16 + std::string(40, 'x')), base);
  EXPECT_NE(QXLogHelper::data_AES256(plain, "0123456789abcdeF"s), base);
  EXPECT_EQ(aesEcb(true, plain, key16), base);
}

TEST(DataAes, ShortAndNilKeysArePaddedWithZeroBytes) {
  const std::string plain = "sixteen byte blk";
  EXPECT_EQ(QXLogHelper::data_AES256(plain, "abc"s),
            aesEcb(true, plain, "abc"s + std::string(13, '\0')));
  EXPECT_EQ(QXLogHelper::data_AES256(plain, std::nullopt),
            aesEcb(true, plain, std::string(16, '\0')));
  EXPECT_EQ(QXLogHelper::data_AES256(plain, ""s), aesEcb(true, plain, std::string(16, '\0')));
  // A multi-byte key counts in UTF-8 bytes: six 3-byte characters are cut after 16 bytes.
  const std::string chinese = "无运营商无运";
  EXPECT_EQ(QXLogHelper::data_AES256(plain, chinese), aesEcb(true, plain, chinese.substr(0, 16)));
}

TEST(DataAes, PadsEveryInputWithOneToSixteenBytes) {
  const std::string key = "k3y";
  EXPECT_EQ(QXLogHelper::data_AES256(""s, key)->size(), 16u);
  EXPECT_EQ(QXLogHelper::data_AES256(std::nullopt, key)->size(), 16u);
  EXPECT_EQ(QXLogHelper::data_AES256(std::string(15, 'p'), key)->size(), 16u);
  EXPECT_EQ(QXLogHelper::data_AES256(std::string(16, 'p'), key)->size(), 32u);
  EXPECT_EQ(QXLogHelper::data_AES256(std::string(17, 'p'), key)->size(), 32u);

  // The last block, decrypted without removing padding, ends in PKCS#7 bytes.
  const std::string keyBytes = key + std::string(13, '\0');
  for (std::size_t length : {0u, 1u, 15u, 16u, 31u}) {
    const auto sealed = QXLogHelper::data_AES256(std::string(length, 'p'), key);
    const auto raw = aesEcb(false, *sealed, keyBytes, /*pad=*/false);
    ASSERT_TRUE(raw);
    const std::size_t padding = 16 - length % 16;
    EXPECT_EQ(raw->substr(length), std::string(padding, static_cast<char>(padding))) << length;
  }
}

TEST(DataAes, EqualBlocksEncryptAlikeAndDecryptIndependently) {
  const std::string block = "same 16B block!!";
  const std::string plain = block + block + block + "tail";
  const std::string key = "session-key-2024";
  const auto sealed = QXLogHelper::data_AES256(plain, key);
  ASSERT_TRUE(sealed);
  ASSERT_EQ(sealed->size(), 64u);
  EXPECT_EQ(sealed->substr(0, 16), sealed->substr(16, 16));
  EXPECT_EQ(sealed->substr(0, 16), sealed->substr(32, 16));
  EXPECT_NE(sealed->substr(0, 16), sealed->substr(48, 16));
  EXPECT_EQ(aesEcb(false, *sealed, key), plain);
  EXPECT_EQ(collector::decryptLogData(*sealed, key).value, plain);
  EXPECT_FALSE(collector::decryptLogData(*sealed, "session-key-2025"s).value == plain);
}

TEST(Base64Encode, UsesTheStandardAlphabetWithPaddingOnOneLine) {
  // RFC 4648 test vectors.
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [input, encoded] : vectors) {
    EXPECT_EQ(support::base64Encode(input), encoded);
    EXPECT_EQ(collector::base64Decode(encoded).value, std::string(input));
  }
  EXPECT_EQ(support::base64Encode("\xfb\xff\xbf"s), "+/+/");
  const std::string noise = randomBytes(3000, 5);
  const std::string encoded = support::base64Encode(noise);
  EXPECT_EQ(encoded.find_first_of("\r\n"), std::string::npos);
  EXPECT_EQ(collector::base64Decode(encoded).value, noise);
}

class Base64StringTest : public testing::LibraryTest {};

TEST_F(Base64StringTest, SealsJsonUnderTheCentersKeyReadOnEveryCall) {
  QXLogMessageFormat& format = QXLogCenter::center().format();
  Dictionary object = testing::strings({{"t_1", "2"}, {"note", "中文 \"quoted\""}});
  object.set("n", Value(int64_t{42}));

  format.setLogEncryptionKey("first-key-123456");
  const auto first = QXLogHelper::base64String(Value(object));
  format.setLogEncryptionKey("second-key-12345");
  const auto second = QXLogHelper::base64String(Value(object));
  ASSERT_TRUE(first && second);
  EXPECT_NE(first, second);

  const auto decoded = collector::decodeLogDataText(*first, "first-key-123456"s);
  ASSERT_TRUE(decoded) << decoded.error;
  EXPECT_EQ(*decoded.value, platform::toJson(Value(object)));
  EXPECT_EQ(collector::decodeLogData(*second, "second-key-12345"s).value, Value(object));
  EXPECT_FALSE(collector::decodeLogData(*second, "first-key-123456"s));
}

TEST_F(Base64StringTest, NilJsonStillYieldsOneEncryptedPaddingBlock) {
  // Were serialisation to fail, gzip would pass nil on, and the cipher would
  // still seal the empty input: a 24-character string, not nil.
  QXLogCenter::center().format().setLogEncryptionKey("k");
  const auto sealed = support::sealJson(std::nullopt);
  ASSERT_TRUE(sealed);
  EXPECT_EQ(sealed->size(), 24u);
  EXPECT_EQ(sealed->substr(22), "==");
  const auto plain = collector::decryptLogData(*collector::base64Decode(*sealed).value, "k"s);
  ASSERT_TRUE(plain);
  EXPECT_EQ(*plain.value, "");
  EXPECT_FALSE(collector::decodeLogData(*sealed, "k"s));

  // An empty JSON text takes the same path: gzip hands back empty bytes.
  EXPECT_EQ(support::sealJson(std::string_view()), sealed);
}

}  // namespace
}  // namespace qxlog
