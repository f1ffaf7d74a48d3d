// The format object's records: common header, launch, network, action, diagnosis, envelope.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Console.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

using namespace std::string_literals;

class RecordsTest : public LibraryTest {
 protected:
  // A sealed field of `body` opened with `key`, as JSON text.
  std::string opened(const Dictionary& body, const char* name, const NullableString& key) {
    auto decoded = collector::decodeLogDataText(field(body, name), key);
    return decoded ? *decoded.value : "undecodable: " + decoded.error;
  }
};

TEST_F(RecordsTest, DefaultsFillAllTwelveKeysAndKeysCarryTheirContextAndIdfaTwice) {
  EXPECT_EQ(json(format().publicLog()),
            R"({"t_1":"2","t_2":"","t_3":"","t_4":"","t_5":"","t_6":"","t_7":"","t_8":"",)"
            R"("t_9":"","t_10":"","t_11":"","t_12":""})");
  // Through the named access the C interface uses.
  const std::pair<const char*, const char*> context[] = {
      {"idfa", "device"}, {"devModel", "model"},     {"hardVer", "12.1"},  {"channel", "store"},
      {"phone", "555"},   {"vipState", "vip"},       {"bundleVer", "3.2"}, {"ver", "300"},
      {"uid", "42"},      {"terminal_category", "7"}};
  for (const auto& [name, value] : context) {
    ASSERT_TRUE(format().setStringProperty(name, value)) << name;
  }
  EXPECT_EQ(json(format().publicLog()),
            R"({"t_1":"7","t_2":"device","t_3":"model","t_4":"12.1","t_5":"store",)"
            R"("t_6":"device","t_7":"555","t_8":"vip","t_9":"3.2","t_10":"300","t_11":"",)"
            R"("t_12":"42"})");
}

TEST_F(RecordsTest, HeaderIsTracedWhenTheUserIdIsNotANumber) {
  const NullableString uids[] = {std::nullopt, "0", "", "abc42", "42", " 7x"};
  for (const NullableString& uid : uids) {
    const bool traced = &uid < &uids[4];  // the last two are numbers
    format().setUid(uid);
    const std::size_t before = console_->lines().size();
    const std::string trace = serial::describe(Value(format().publicLog()));
    EXPECT_EQ(console_->lines().size(), before + traced) << uid.value_or("(nil)");
    EXPECT_EQ(console_->contains(trace), traced) << uid.value_or("(nil)");
  }
}

TEST_F(RecordsTest, SendTimeFollowsTheServerClock) {
  EXPECT_EQ(format().returnsSendTime(987654.0), "987654");  // before any settings answer
  format().setCurrent_time(Value("50000"));
  format().setServerInfoUpdateTime(40000.0);
  EXPECT_EQ(format().returnsSendTime(45500.0), "55500");
  EXPECT_EQ(format().returnsSendTime(39000.0), "49000");  // local clock went back
  EXPECT_EQ(format().returnsSendTime(39999.1), "50000");  // -0.9 ms truncates to 0
}

TEST_F(RecordsTest, PackageNameAndNamedStringsOfNilAndOfNumbers) {
  EXPECT_EQ(format().packageName(), platform::programName());
  EXPECT_TRUE(format().setStringProperty("city", std::nullopt));
  EXPECT_EQ(format().stringProperty("city"), std::optional<NullableString>(NullableString()));
  format().setCurrent_time(Value(int64_t{123}));
  EXPECT_EQ(format().stringProperty("current_time"), NullableString("123"));
}

// Nil values become empty; the context is read at each record.
TEST_F(RecordsTest, LaunchAndNetworkRecordsOfNilValuesAndContext) {
  EXPECT_EQ(json(format().networkLog("u", "-5", "e")),
            R"({"a_t":"7","a_0":"1700000000000","a_1":"-5","a_2":"e","a_3":"u"})");
  EXPECT_EQ(field(format().networkLog("u", std::nullopt, std::nullopt), "a_2"), "");
  Dictionary empty = format().launchLog(std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(field(empty, "a_1") + field(empty, "a_2") + field(empty, "a_3") + field(empty, "a_6"),
            "");
  format().setCity("Hangzhou");
  format().setNetworkState("wifi");
  Dictionary record = format().launchLog("x", "y", "z");
  EXPECT_EQ(field(record, "a_5") + "|" + field(record, "a_6"), "wifi|Hangzhou");
}

TEST_F(RecordsTest, LaunchRecordHasEveryKeyInOrderWithTheLastTwoEmpty) {
  clock_->setWallSeconds(1700000000.9);
  // A server offset must not move the launch time, which is whole seconds.
  format().setCurrent_time(Value("5"));
  format().setServerInfoUpdateTime(1000.0);
  Dictionary record = format().launchLog("cold", "1700000000123", "push-7");
  const std::string sizes =
      "\"a_7\":\"" + field(record, "a_7") + "\",\"a_8\":\"" + field(record, "a_8") + "\"";
  EXPECT_EQ(json(record), R"({"a_t":"0","a_0":"1700000000000","a_1":"cold","a_2":"1700000000123",)"
                          R"("a_3":"push-7","a_4":")" +
                              QXLogHelper::getIPAddress() + R"(","a_5":"0","a_6":"",)" + sizes +
                              R"(,"a_9":"","a_10":""})");

  // Disk sizes are gigabytes in six significant digits.
  const double gib = 1024.0 * 1024.0 * 1024.0;
  for (auto [key, bytes] : {std::pair{"a_7", QXLogHelper::totalDiskSpace()},
                            std::pair{"a_8", QXLogHelper::freeDiskSpace()}}) {
    std::string text = field(record, key);
    ASSERT_FALSE(text.empty()) << key;
    ASSERT_LE(text.size(), 12u) << key << " " << text;  // "%g" never writes long fractions
    // Free space may move between the two readings; the figure stays close.
    EXPECT_NEAR(std::strtod(text.c_str(), nullptr), bytes / gib, bytes / gib * 1e-3 + 1e-5) << key;
  }
}

TEST_F(RecordsTest, ActionRecordCorrectsOnlyTheSendTime) {
  clock_->setWallSeconds(1700000000.4567);
  // The server said 50000 when the local clock read 1700000000000 - 1000.
  format().setCurrent_time(Value("50000"));
  format().setServerInfoUpdateTime(1699999999000.0);
  EXPECT_EQ(json(format().actionLog("tap", "1700000000001", std::nullopt)),
            R"({"a_t":"2","a_0":"51456","a_1":"tap","a_2":"1700000000001",)"
            R"("a_3":"1700000000456","a_4":"0","a_5":""})");
}

// The prepare time is taken fourth, the end time fifth; nil becomes empty strings.
TEST_F(RecordsTest, BodyHasSevenKeysWithTheCrossedVersionPairAndTheFullReport) {
  const Dictionary empty =
      format().diagnosisLog(std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                            std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(opened(empty, "diagnosis_log", std::nullopt),
            R"({"user_info":{"userID":"","userPhone":""},"dev_info":{"deviceID":"",)"
            R"("devBrand":"","devMode":"","deviceResolution":"1.000000","devSystemVersion":""},)"
            R"("play_info":{"playUrl":"","decodeType":"1","definition":"","isPlayOK":"",)"
            R"("causeOfFailure":"","startTime":"","prepareTime":"","endTime":"","duration":""}})");
  const std::string token = *QXLogHelper::tokenString("0");
  EXPECT_EQ(json(empty), R"({"user_id":"","uid":"","user_phone":"","diagnosis_log":")" +
                             field(empty, "diagnosis_log") +
                             R"(","velin":"","version":"velin","token":")" + token + "\"}");
  format().setUid("42");
  format().setIdfa("device-1");
  format().setPhone("555");
  format().setSoftVer("3.1.4");
  format().setDevModel("Pixel");
  format().setHardVer("14");
  format().setScreenScale(3.0);
  format().setLogEncryptionKey("0123456789abcdef");
  const Dictionary body = format().diagnosisLog("p1", "p2", "p3", "p5", "p4", "p6", "p7", "p8");
  EXPECT_EQ(json(body), R"({"user_id":"42","uid":"device-1","user_phone":"555","diagnosis_log":")" +
                            field(body, "diagnosis_log") +
                            R"(","velin":"3.1.4","version":"velin","token":")" + token + "\"}");
  EXPECT_EQ(opened(body, "diagnosis_log", "0123456789abcdef"),
            R"({"user_info":{"userID":"42","userPhone":"555"},"dev_info":{"deviceID":"device-1",)"
            R"("devBrand":"Pixel","devMode":"Pixel","deviceResolution":"3.000000",)"
            R"("devSystemVersion":"14"},"play_info":{"playUrl":"p1","decodeType":"1",)"
            R"("definition":"p8","isPlayOK":"p7","causeOfFailure":"p2","startTime":"p3",)"
            R"("prepareTime":"p5","endTime":"p4","duration":"p6"}})");
}

TEST_F(RecordsTest, HostReportIsEncodedAsGiven) {
  format().setLogEncryptionKey("k");
  Dictionary host = strings({{"custom", "yes"}});
  host.set("n", Value(int64_t{7}));
  EXPECT_EQ(opened(format().diagnosisOfCompleteInformation(Value(host)), "diagnosis_log", "k"),
            R"({"custom":"yes","n":7})");
}

TEST_F(RecordsTest, EnvelopeHoldsSealedBodyTokenAndPlainBodyInThatOrder) {
  const char* key = "qxlog-test-key";  // 14 bytes, zero padded
  format().setUid("1001");
  format().setLogEncryptionKey(key);
  Dictionary play = strings({{"a_t", "1"}, {"a_0", "movie-9"}});
  play.set("p", Value(Array{Value(strings({{"p_0", "buffer"}}))}));
  const Array records{Value(strings({{"a_t", "2"}, {"a_0", "tap \"play\""}})), Value(play)};
  const Dictionary envelope = format().combinationLog(&records);
  // The plain body serialises {"t", "a"}; the sealed one opens, with the key alone, to the same.
  const std::string header = R"({"t":)" + json(format().publicLog());
  const std::string plain = header + R"(,"a":[{"a_t":"2","a_0":"tap \"play\""},)" +
                            R"({"a_t":"1","a_0":"movie-9","p":[{"p_0":"buffer"}]}]})";
  EXPECT_EQ(json(envelope), json(strings({{"log_data", field(envelope, "log_data")},
                                          {"token", *QXLogHelper::tokenString(std::nullopt)},
                                          {"log_data_str", plain}})));
  EXPECT_EQ(opened(envelope, "log_data", key), plain);
  EXPECT_EQ(opened(envelope, "log_data", "another-key").rfind("undecodable", 0), 0u);
  // Nil records become an empty string, no records an empty array.
  const Dictionary nil = format().combinationLog(nullptr);
  EXPECT_EQ(opened(nil, "log_data", key), header + R"(,"a":""})");
  EXPECT_EQ(field(nil, "log_data_str"), header + R"(,"a":""})");
  const Array none;
  EXPECT_EQ(opened(format().combinationLog(&none), "log_data", key), header + R"(,"a":[]})");
}

}  // namespace
}  // namespace qxlog::testing
