#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/serial/Json.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/TestPlatform.h"

namespace qxlog {
namespace {

using namespace std::string_literals;
using testing::field;
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

  static constexpr const char* kKey = "qxlog-test-key";  // 14 bytes, zero padded
};

TEST_F(EnvelopeTest, HoldsSealedBodyTokenAndPlainBodyInThatOrder) {
  const Array records = sampleRecords();
  const Dictionary envelope = format().combinationLog(&records);
  EXPECT_EQ(keysOf(envelope), (std::vector<std::string>{"log_data", "token", "log_data_str"}));

  // The plain body is exactly what the serialiser makes of {"t", "a"}.
  const std::string plain = field(envelope, "log_data_str");
  Dictionary expected;
  expected.set("t", Value(format().publicLog()));
  expected.set("a", Value(records));
  EXPECT_EQ(plain, serial::toJson(Value(expected)));

  // The sealed body opens, with the host's key, to the same bytes.
  const auto opened = collector::decodeLogDataText(field(envelope, "log_data"), kKey);
  ASSERT_TRUE(opened) << opened.error;
  EXPECT_EQ(*opened.value, plain);
  EXPECT_FALSE(collector::decodeLogData(field(envelope, "log_data"), "another-key"s));
}

TEST_F(EnvelopeTest, NilRecordsBecomeAnEmptyStringAndNoRecordsAnEmptyArray) {
  const Dictionary nilEnvelope = format().combinationLog(nullptr);
  const auto nilBody = collector::decodeLogData(field(nilEnvelope, "log_data"), kKey);
  ASSERT_TRUE(nilBody) << nilBody.error;
  EXPECT_EQ(*nilBody.value->asDictionary()->find("a"), Value(""));
  EXPECT_EQ(serial::parseJson(field(nilEnvelope, "log_data_str")), nilBody.value);

  const Array none;
  const Dictionary emptyEnvelope = format().combinationLog(&none);
  const auto emptyBody = collector::decodeLogData(field(emptyEnvelope, "log_data"), kKey);
  ASSERT_TRUE(emptyBody) << emptyBody.error;
  EXPECT_EQ(*emptyBody.value->asDictionary()->find("a"), Value(Array{}));
  EXPECT_EQ(emptyBody.value->asDictionary()->size(), 2u);
}

}  // namespace
}  // namespace qxlog
