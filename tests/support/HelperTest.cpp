// The helpers beneath the records: digests, gzip, cipher, sealed body, device facts, day token.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <random>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/PosixDeviceFacts.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Codecs.h"
#include "QXLog/support/Facts.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/TestPlatform.h"

namespace qxlog {
namespace {

using namespace std::string_literals;
using collector::gunzip;  // exactly one gzip member, nothing after it
using H = QXLogHelper;
using std::chrono::hours;

std::string randomBytes(std::size_t count, uint32_t seed) {
  std::mt19937 engine(seed);
  std::string bytes(count, '\0');
  for (char& c : bytes) c = static_cast<char>(engine() & 0xff);
  return bytes;
}

// AES-128-ECB with PKCS#7 under explicit key bytes, by OpenSSL.
std::optional<std::string> aesEcb(const std::string& data, const std::string& key) {
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  std::string out(data.size() + 16, '\0');
  int written = 0, last = 0;
  auto* o = reinterpret_cast<unsigned char*>(out.data());
  bool ok =
      EVP_CipherInit_ex(context, EVP_aes_128_ecb(), nullptr,
                        reinterpret_cast<const unsigned char*>(key.data()), nullptr, 1) == 1 &&
      EVP_CipherUpdate(context, o, &written, reinterpret_cast<const unsigned char*>(data.data()),
                       static_cast<int>(data.size())) == 1 &&
      EVP_CipherFinal_ex(context, o + written, &last) == 1;
  EVP_CIPHER_CTX_free(context);
  if (!ok) return std::nullopt;
  out.resize(static_cast<std::size_t>(written + last));
  return out;
}

TEST(Md5String, MatchesTheRfc1321VectorsAndStopsAtNul) {
  const std::pair<std::string, const char*> vectors[] = {
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {"a\0bc"s, "0cc175b9c0f1b6a831c399e269772661"},    // only "a" is hashed
      {"\0x"s, "d41d8cd98f00b204e9800998ecf8427e"},      // the digest of no bytes
      {"无运营商", "bd840c8801c74df2797edea7667ae1e7"},  // UTF-8 bytes
  };
  for (const auto& [input, digest] : vectors) {
    EXPECT_EQ(QXLogHelper::md5String(input), std::string(digest)) << input;
  }
  EXPECT_EQ(QXLogHelper::md5String(std::nullopt), std::nullopt);
  EXPECT_EQ(QXLogHelper::md5String(""s), std::nullopt);
}

TEST(Gzip, WritesOneStreamThatRoundTripsWhateverItsSize) {
  EXPECT_EQ(H::gzipDeflate(""s), ""s);
  EXPECT_EQ(H::gzipDeflate(std::nullopt), std::nullopt);
  EXPECT_EQ(H::gzipInflate(""s), ""s);
  const auto compressed = H::gzipDeflate("{\"t\":{}}"s);
  ASSERT_TRUE(compressed && compressed->size() >= 18u);
  EXPECT_EQ(compressed->substr(0, 3), "\x1f\x8b\x08"s);  // gzip, deflate
  EXPECT_EQ(gunzip(*compressed).value, "{\"t\":{}}"s);

  // Noise needs several 16384-byte output steps; output of exactly one step still ends the stream.
  const std::string noise = randomBytes(70000, 7);
  const auto large = H::gzipDeflate(noise);
  EXPECT_GT(large->size(), 4 * 16384u);
  EXPECT_EQ(gunzip(*large).value, noise);
  EXPECT_EQ(H::gzipInflate(large), noise);
  for (std::size_t size = 16300; size <= 16400; ++size) {
    ASSERT_EQ(gunzip(*H::gzipDeflate(noise.substr(0, size))).value, noise.substr(0, size)) << size;
  }
}

TEST(Gzip, InflatesAZlibStreamAndNothingThatIsNotAWholeStream) {
  const std::string text = "a zlib-wrapped payload, a zlib-wrapped payload";
  uLongf size = compressBound(text.size());
  std::string wrapped(size, '\0');
  ASSERT_EQ(compress2(reinterpret_cast<Bytef*>(wrapped.data()), &size,
                      reinterpret_cast<const Bytef*>(text.data()), text.size(), 6),
            Z_OK);
  wrapped.resize(size);
  EXPECT_EQ(H::gzipInflate(wrapped), text);

  const auto compressed = H::gzipDeflate(randomBytes(5000, 11));
  std::string corrupt = *compressed;
  corrupt[corrupt.size() - 5] ^= 0x40;  // the length in the trailer
  for (const std::string& bad : {"this is not compressed at all"s, "\x1f"s, randomBytes(1000, 3),
                                 compressed->substr(0, compressed->size() - 9), corrupt}) {
    EXPECT_EQ(H::gzipInflate(bad), std::nullopt) << bad.size();
  }
}

// Keys: the first sixteen UTF-8 bytes (a 3-byte character cut after 16), padded with zero bytes;
// data: whole blocks of PKCS#7 padding, nil as no bytes.
TEST(DataAes, IsAes128EcbUnderTheFirstSixteenUtf8BytesOfTheKeyPaddedWithZeroBytes) {
  const std::string plain = "records of one batch, records of one batch";
  const std::string key16 = "0123456789abcdef", zeros(16, '\0'), chinese = "无运营商无运";
  for (const auto& [key, bytes] : {std::pair<NullableString, std::string>{key16, key16},
                                   {key16 + "g", key16},
                                   {key16 + std::string(40, 'x'), key16},
                                   {"0123456789abcdeF", "0123456789abcdeF"},
                                   {"abc", "abc" + zeros.substr(3)},
                                   {std::nullopt, zeros},
                                   {"", zeros},
                                   {chinese, chinese.substr(0, 16)}}) {
    EXPECT_EQ(H::data_AES256(plain, key), aesEcb(plain, bytes)) << bytes;
  }
  EXPECT_NE(aesEcb(plain, "0123456789abcdeF"), aesEcb(plain, key16));
  const NullableString data[] = {"", std::string(15, 'p'), std::string(16, 'p'),
                                 std::string(17, 'p'), std::nullopt};
  for (const NullableString& bytes : data) {
    EXPECT_EQ(H::data_AES256(bytes, key16), aesEcb(bytes.value_or(""), key16)) << bytes.has_value();
  }
}

class LibraryValuesTest : public testing::LibraryTest {};

TEST_F(LibraryValuesTest, NilJsonStillYieldsOneEncryptedPaddingBlock) {
  // Nil JSON passes gzip as nil; the cipher still seals the empty input: 24 characters, not nil.
  const auto sealed = support::sealJson(std::nullopt, "k"s);
  ASSERT_TRUE(sealed);
  EXPECT_EQ(sealed->size(), 24u);
  EXPECT_EQ(collector::decryptLogData(*collector::base64Decode(*sealed).value, "k"s).value, ""s);
  EXPECT_EQ(support::sealJson(std::string_view(), "k"s), sealed);  // empty JSON text: the same path
}

TEST(IsEmptyOrNull, OnlyNonEmptyStringsOtherThanTheNullWordsCount) {
  for (const Value& value :
       {Value(), Value(0), Value(5), Value(2.5), Value(true), Value(Array{Value("x")}),
        Value(testing::strings({{"k", "v"}})), Value(""), Value("undefined"), Value("null")}) {
    EXPECT_TRUE(QXLogHelper::isEmptyOrNull(value));
  }
  for (const char* text : {"NULL", "Null", "Undefined", " ", "0", " null", "null ", "x"}) {
    EXPECT_FALSE(QXLogHelper::isEmptyOrNull(Value(text))) << '"' << text << '"';
  }
}

TEST(FreeDiskSpace, TwoToTheSixtyFourthWhenTheFileSystemCannotBeRead) {
  const double unknown =
      support::freeDiskSpaceOf(platform::PosixDeviceFacts(), "/nonexistent/qxlog/var");
  EXPECT_EQ(unknown, 18446744073709551616.0);
  constexpr double kGiB = 0.0009765625 * 0.0009765625 * 0.0009765625;
  EXPECT_EQ(serial::formatGeneral(unknown * kGiB), "1.71799e+10");  // as the launch record
}

TEST(LookupHostIPAddressForURL, ResolvesToADottedIPv4AddressOrEmptyText) {
  const std::pair<NullableString, const char*> cases[] = {
      {"http://localhost:8080/log", "127.0.0.1"},
      {"https://u:p@192.0.2.44/x", "192.0.2.44"},
      {"http://no-such-host.invalid/x", ""},
      {std::nullopt, ""},
      {"localhost", ""},
      {"http://[::1]:80/", ""}};
  for (const auto& [url, address] : cases) {
    EXPECT_EQ(QXLogHelper::lookupHostIPAddressForURL(url), address) << url.value_or("(nil)");
  }
}

// From the environment: the last IPv4 address of "en0", and the total size as a float, said.
TEST_F(LibraryValuesTest, TheLastIPv4AddressOfEn0AndTheTotalSizeInSinglePrecision) {
  EXPECT_EQ(QXLogHelper::getIPAddress(), "");
  facts_->setInterfaceAddresses(
      {{"en0", "192.0.2.7"}, {"en1", "203.0.113.5"}, {"en0", "198.51.100.9"}, {"en01", "1.1.1.1"}});
  EXPECT_EQ(QXLogHelper::getIPAddress(), "198.51.100.9");

  facts_->setSpace({0, 16777217, 5, 4096});  // 2^36 + 4096 bytes: a float keeps 2^36
  EXPECT_EQ(QXLogHelper::totalDiskSpace(), 68719476736.0);
  EXPECT_EQ(QXLogHelper::freeDiskSpace(), 20480.0);
  facts_->setSpace({13});
  EXPECT_EQ(QXLogHelper::totalDiskSpace(), 0.0);
  EXPECT_EQ(QXLogHelper::freeDiskSpace(), support::kUnknownFreeSpace);
  EXPECT_EQ(console_->lines(),
            (std::vector<std::string>{
                "Memory Capacity of 64.000000 GB .",
                "Error Obtaining System Memory Info: Domain = NSPOSIXErrorDomain, Code = 13"}));
}

TEST_F(LibraryValuesTest, TokenIsTheSaltedDigestOfTheLocalDay) {
  constexpr double kMidnight = 1699977600.0;  // 2023-11-15 00:00:00 in UTC+8
  clock_->setUtcOffset(hours(8));
  clock_->setWallSeconds(kMidnight - 1);
  const auto evening = QXLogHelper::tokenString(std::nullopt);
  // md5("2023-11-14Rk4TqzWmLpVhNc7XsJdBfYoE")
  EXPECT_EQ(evening, "8c3861b4f4b09b1889834f09e88f7df9"s);
  for (const char* argument : {"", "0", "1.7e+12", "2023-11-15"}) {
    EXPECT_EQ(QXLogHelper::tokenString(std::string(argument)), evening) << argument;
  }
  clock_->advance(std::chrono::seconds(1));
  const auto morning = QXLogHelper::tokenString("0"s);
  // md5("2023-11-15Rk4TqzWmLpVhNc7XsJdBfYoE")
  EXPECT_EQ(morning, "061eae6e85eaa4107518d8237f442b85"s);
  clock_->advance(hours(23) + std::chrono::minutes(59) + std::chrono::seconds(59));
  EXPECT_EQ(QXLogHelper::tokenString(std::nullopt), morning);
}

}  // namespace
}  // namespace qxlog
