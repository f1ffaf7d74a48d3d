#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Json.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/TestPlatform.h"

namespace qxlog {
namespace {

using namespace std::string_literals;
using testing::strings;

class EnvelopeTest : public testing::LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    format().setUid("1001");
    format().setIdfa("IDFA-1");
    format().setChannel("appstore");
    format().setLogEncryptionKey(kKey);
  }

  static QXLogMessageFormat& format() { return QXLogCenter::center().format(); }

  static Array sampleRecords() {
    Dictionary play = strings({{"a_t", "1"}, {"a_0", "movie-9"}});
    play.set("p", Value(Array{Value(strings({{"p_0", "buffer"}, {"p_1", "1700000000123"}}))}));
    return Array{Value(strings({{"a_t", "2"}, {"a_0", "tap \"play\""}, {"a_1", "1700000000000"}})),
                 Value(std::move(play))};
  }

  static std::vector<std::string> keysOf(const Dictionary& dictionary) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : dictionary) keys.push_back(key);
    return keys;
  }

  static std::string text(const Dictionary& envelope, std::string_view key) {
    const Value* value = envelope.find(key);
    return value != nullptr && value->isString() ? *value->asString() : "<missing>";
  }

  static constexpr const char* kKey = "qxlog-test-key";  // 14 bytes, zero padded
};

TEST_F(EnvelopeTest, HoldsSealedBodyTokenAndPlainBodyInThatOrder) {
  const Array records = sampleRecords();
  const Dictionary envelope = format().combinationLog(&records);
  EXPECT_EQ(keysOf(envelope), (std::vector<std::string>{"log_data", "token", "log_data_str"}));

  const std::string plain = text(envelope, "log_data_str");
  const std::optional<Value> body = platform::parseJson(plain);
  ASSERT_TRUE(body && body->isDictionary()) << plain;
  EXPECT_EQ(keysOf(*body->asDictionary()), (std::vector<std::string>{"t", "a"}));
  EXPECT_EQ(*body->asDictionary()->find("t"), Value(format().publicLog()));
  EXPECT_EQ(*body->asDictionary()->find("a"), Value(records));
  // The plain body is exactly what the serialiser makes of {"t", "a"}.
  Dictionary expected;
  expected.set("t", Value(format().publicLog()));
  expected.set("a", Value(records));
  EXPECT_EQ(plain, platform::toJson(Value(expected)));

  // The sealed body opens, with the host's key, to the same bytes.
  const auto opened = collector::decodeLogDataText(text(envelope, "log_data"), kKey);
  ASSERT_TRUE(opened) << opened.error;
  EXPECT_EQ(*opened.value, plain);
  EXPECT_FALSE(collector::decodeLogData(text(envelope, "log_data"), "another-key"s));
}

TEST_F(EnvelopeTest, NilRecordsBecomeAnEmptyStringAndNoRecordsAnEmptyArray) {
  const Dictionary nilEnvelope = format().combinationLog(nullptr);
  const auto nilBody = collector::decodeLogData(text(nilEnvelope, "log_data"), kKey);
  ASSERT_TRUE(nilBody) << nilBody.error;
  EXPECT_EQ(*nilBody.value->asDictionary()->find("a"), Value(""));
  EXPECT_EQ(platform::parseJson(text(nilEnvelope, "log_data_str")), nilBody.value);

  const Array none;
  const Dictionary emptyEnvelope = format().combinationLog(&none);
  const auto emptyBody = collector::decodeLogData(text(emptyEnvelope, "log_data"), kKey);
  ASSERT_TRUE(emptyBody) << emptyBody.error;
  EXPECT_EQ(*emptyBody.value->asDictionary()->find("a"), Value(Array{}));
  EXPECT_EQ(emptyBody.value->asDictionary()->size(), 2u);
}

TEST_F(EnvelopeTest, TokenDependsOnTheLocalDayNotOnTheSettingsTime) {
  clock_->setUtcOffset(std::chrono::hours(8));
  clock_->setWallSeconds(1699977600.0 - 10);  // 23:59:50 local
  const Array records = sampleRecords();
  const std::string before = text(format().combinationLog(&records), "token");
  EXPECT_EQ(before, QXLogHelper::tokenString(std::nullopt));
  EXPECT_EQ(before.size(), 32u);
  format().setServerInfoUpdateTime(1699977590123.0);
  EXPECT_EQ(text(format().combinationLog(nullptr), "token"), before);

  clock_->advance(std::chrono::seconds(10));  // local midnight
  const std::string after = text(format().combinationLog(&records), "token");
  EXPECT_NE(after, before);
  EXPECT_EQ(after, QXLogHelper::tokenString("ignored"s));
}

TEST_F(EnvelopeTest, AnUnsetKeySealsUnderZeroBytes) {
  format().setLogEncryptionKey(std::nullopt);
  const Array records = sampleRecords();
  const Dictionary envelope = format().combinationLog(&records);
  const auto opened = collector::decodeLogDataText(text(envelope, "log_data"), std::nullopt);
  ASSERT_TRUE(opened) << opened.error;
  EXPECT_EQ(*opened.value, text(envelope, "log_data_str"));
}

TEST_F(EnvelopeTest, OpensWithTheOpensslCommandAndGzip) {
  if (std::system("command -v openssl >/dev/null 2>&1 && command -v gzip >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "openssl or gzip is not installed";
  }
  const Array records = sampleRecords();
  const Dictionary envelope = format().combinationLog(&records);
  const std::string file = documentsPath("log_data.b64");
  std::ofstream(file) << text(envelope, "log_data");

  // The 16 key bytes in hex: the key's bytes, then zeros.
  std::string hex;
  const std::string keyBytes = std::string(kKey) + std::string(16 - std::string(kKey).size(), '\0');
  for (unsigned char c : keyBytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    hex += kHex[c >> 4];
    hex += kHex[c & 15];
  }
  const std::string command =
      "openssl enc -d -aes-128-ecb -nosalt -a -A -K " + hex + " -in '" + file + "' | gzip -dc";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[4096];
  for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  EXPECT_EQ(pclose(pipe), 0);
  EXPECT_EQ(output, text(envelope, "log_data_str"));
}

}  // namespace
}  // namespace qxlog
