// The collector against what the library really sends, against an independent
// encoder, and against every kind of bad input.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Json.h"
#include "QXLog/platform/Text.h"
#include "QXLog/support/Codecs.h"
#include "collector/print/Report.h"
#include "collector/server/LocalCollector.h"
#include "tests/support/UploadFixture.h"

namespace qxlog {
namespace {

using namespace std::string_literals;
using collector::acceptedDayTokens;
using collector::dayToken;
using testing::kTestKey;

struct Reply {
  int status = 0;
  std::string contentType;
  std::string body;
};

// Sends raw bytes to 127.0.0.1:port and reads the answer to the end.
Reply roundTrip(int port, const std::string& request) {
  Reply reply;
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return reply;
  }
  ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  std::string raw;
  char chunk[4096];
  ssize_t got;
  while ((got = ::recv(fd, chunk, sizeof chunk, 0)) > 0) raw.append(chunk, got);
  ::close(fd);
  if (raw.rfind("HTTP/1.1 ", 0) != 0) return reply;
  reply.status = std::atoi(raw.c_str() + 9);
  const std::size_t type = raw.find("Content-Type: ");
  if (type != std::string::npos) {
    reply.contentType = raw.substr(type + 14, raw.find("\r\n", type) - type - 14);
  }
  const std::size_t head = raw.find("\r\n\r\n");
  if (head != std::string::npos) reply.body = raw.substr(head + 4);
  return reply;
}

std::string formEncode(const std::string& text) {
  static const char* kHex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

Reply postForm(int port, const std::string& path, const std::string& form) {
  return roundTrip(port, "POST " + path +
                             " HTTP/1.1\r\nHost: x\r\nContent-Type: "
                             "application/x-www-form-urlencoded\r\nContent-Length: " +
                             std::to_string(form.size()) + "\r\n\r\n" + form);
}

Reply get(int port, const std::string& target) {
  return roundTrip(port, "GET " + target + " HTTP/1.1\r\nHost: x\r\n\r\n");
}

// log_data as the library seals it, from a plain body text.
std::string seal(const std::string& plain, const std::string& key = kTestKey) {
  return support::base64Encode(*QXLogHelper::data_AES256(plain, key));
}
std::string sealJson(const std::string& json, const std::string& key = kTestKey) {
  return seal(*QXLogHelper::gzipDeflate(json), key);
}

std::time_t localNoon(int year, int month, int day) {
  std::tm noon{};
  noon.tm_year = year - 1900;
  noon.tm_mon = month - 1;
  noon.tm_mday = day;
  noon.tm_hour = 12;
  noon.tm_isdst = -1;
  return std::mktime(&noon);
}

std::string readAll(std::FILE* file) {
  std::fflush(file);
  std::rewind(file);
  std::string out;
  char chunk[4096];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) out.append(chunk, got);
  return out;
}

TEST(CollectorDayToken, AcceptsTodayAndYesterdayAcrossMonthAndYearEnds) {
  EXPECT_EQ(dayToken(2024, 3, 1), *QXLogHelper::md5String("2024-03-01Rk4TqzWmLpVhNc7XsJdBfYoE"s));
  auto at = [](std::time_t t) {
    return acceptedDayTokens(std::chrono::system_clock::from_time_t(t));
  };
  EXPECT_EQ(at(localNoon(2024, 3, 1)),
            (std::vector<std::string>{dayToken(2024, 3, 1), dayToken(2024, 2, 29)}));
  EXPECT_EQ(at(localNoon(2025, 1, 1)),
            (std::vector<std::string>{dayToken(2025, 1, 1), dayToken(2024, 12, 31)}));
  // One second before midnight and at midnight: the day changes, yesterday
  // follows it.
  const std::time_t midnight = localNoon(2024, 7, 10) + 12 * 3600;
  EXPECT_EQ(at(midnight - 1)[0], dayToken(2024, 7, 10));
  EXPECT_EQ(at(midnight), (std::vector<std::string>{dayToken(2024, 7, 11), dayToken(2024, 7, 10)}));
}

// A library under the test platform, whose log server is a real collector on
// 127.0.0.1 running on the same virtual clock, in UTC like the library.
class CollectorTest : public testing::UploadTest {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    UploadTest::SetUp();
    log_ = std::tmpfile();
    out_ = std::tmpfile();
    database_ = documents_ + "/collector.db";
    collector::LocalCollectorOptions options;
    options.database = database_;
    options.maxBodyBytes = 64 << 10;
    options.collector.key = kTestKey;
    options.collector.pushIntervalTime = 1500;
    options.collector.pushIntervalNumber = 7;
    options.collector.clock = [clock = clock_] {
      return std::chrono::system_clock::time_point(
          std::chrono::milliseconds(static_cast<int64_t>(clock->wallSeconds() * 1000)));
    };
    options.out = out_;
    options.log = log_;
    std::string error;
    collector_ = collector::LocalCollector::start(options, error);
    ASSERT_TRUE(collector_) << error;
    port_ = collector_->port();
    const std::string base = collector_->baseUrl();
    format().setPushUrl(base + "/settings");
    format().setPushLogUrl(base + "/log");
    format().setPushDiagnosisUrl(base + "/diagnosis");
  }
  void TearDown() override {
    collector_.reset();
    UploadTest::TearDown();
    std::fclose(log_);
    std::fclose(out_);
  }

  std::string today() const { return *QXLogHelper::tokenString(std::nullopt); }
  std::string logForm(const std::string& logData, const std::string& token) {
    return "log_data=" + formEncode(logData) + "&token=" + formEncode(token);
  }
  bool nothingStored() {
    collector::CollectorStore& store = collector_->store();
    const collector::Delivered delivered = store.delivered();
    return delivered.uploads == 0 && delivered.diagnoses == 0 && store.records().empty() &&
           store.diagnoses().empty();
  }

  std::unique_ptr<collector::LocalCollector> collector_;
  int port_ = 0;
  std::string database_;
  std::FILE* log_ = nullptr;
  std::FILE* out_ = nullptr;
};

TEST_F(CollectorTest, StoresWhatTheLibraryUploadsAndConfirmsIt) {
  logEnvReady(true);
  recordLaunchLog("cold");
  settle();
  recordActionLog("tap", "3");
  settle();
  recordDiagnosLog("http://127.0.0.1/a.m3u8", "timeout", "1", "2", "3", "4", "0", "hd");
  settle();

  collector::CollectorStore& store = collector_->store();
  const collector::Delivered delivered = store.delivered("device-1");
  EXPECT_EQ(delivered.uploads, 2);
  EXPECT_EQ(delivered.records, (std::map<std::string, int64_t>{{"0", 1}, {"2", 1}}));
  EXPECT_EQ(delivered.diagnoses, 1);
  EXPECT_EQ(store.delivered("another device").uploads, 0);

  const auto actions = store.records("2"s);
  ASSERT_EQ(actions.size(), 1u);
  EXPECT_EQ(actions[0].name, "action");
  const Value action = *platform::parseJson(actions[0].body);
  EXPECT_EQ(testing::field(action, "a_1"), "tap");
  EXPECT_EQ(testing::field(action, "a_5"), "3");

  const auto diagnoses = store.diagnoses();
  ASSERT_EQ(diagnoses.size(), 1u);
  const Value row = *platform::parseJson(diagnoses[0]);
  EXPECT_EQ(testing::field(row, "uid"), "device-1");
  EXPECT_EQ(testing::field(row, "user_id"), "42");
  EXPECT_EQ(testing::field(row, "version"), "velin");
  const Value* report = row.asDictionary()->find("report");
  ASSERT_TRUE(report && report->asDictionary());
  EXPECT_EQ(testing::field(*report->asDictionary()->find("play_info"), "causeOfFailure"),
            "timeout");

  // Each was confirmed: nothing is waiting for a repeat, and the printed
  // report names the records.
  EXPECT_TRUE(center().actionLog().empty());
  const std::string printed = readAll(out_);
  EXPECT_NE(printed.find("upload #1"), std::string::npos) << printed;
  EXPECT_NE(printed.find("launch "), std::string::npos) << printed;
  EXPECT_NE(printed.find("action "), std::string::npos) << printed;
  EXPECT_NE(printed.find("diagnosis #1"), std::string::npos) << printed;
}

TEST_F(CollectorTest, FoldedPlaysArriveWithTheirPlayActions) {
  logEnvReady(true);
  format().setLimitLogCount(50);
  recordMoviePlayLog("42", "http://127.0.0.1/f.m3u8", "home", false, "0");
  recordPlayActionLog("5", "1", "100", "200", "0", "0", "10");
  recordPlayActionLog("5", "1", "100", "300", "0", "0", "20");  // repeated: an empty entry
  recordPlayActionLog("2", "0", "400", "400", "1", "1", "30");
  recordChannelPlayLog("c1", "http://127.0.0.1/c.m3u8", "live", false, "0");
  recordPlayActionLog("1", "1", "500", "500", "0", "0", "0");
  center().makePlayLog();
  center().submitAllLog();
  settle();

  const collector::Delivered delivered = collector_->store().delivered();
  EXPECT_EQ(delivered.records, (std::map<std::string, int64_t>{{"1", 1}, {"6", 1}}));
  EXPECT_EQ(delivered.playActions, (std::map<std::string, int64_t>{{"1", 2}, {"6", 1}}));
  const auto films = collector_->store().records("1"s);
  ASSERT_EQ(films.size(), 1u);
  EXPECT_EQ(films[0].name, "film play");
  const std::string printed = readAll(out_);
  EXPECT_NE(printed.find("film play"), std::string::npos) << printed;
  EXPECT_NE(printed.find("channel play"), std::string::npos) << printed;
  EXPECT_NE(printed.find("{} (a repeated buffering report, dropped)"), std::string::npos)
      << printed;
}

TEST_F(CollectorTest, SettingsAnswerReachesTheLibrary) {
  center().getLogServerInfo();
  settle();
  EXPECT_EQ(format().limitLogCount(), 7);
  EXPECT_EQ(platform::integerValue(format().push_interval_time()), 1500);
  EXPECT_EQ(platform::integerValue(format().current_time()),
            static_cast<int64_t>(clock_->wallSeconds() * 1000));
  EXPECT_EQ(collector_->collector().settingsRequests("device-1"), 1);

  const Reply refused = get(port_, "/settings?token=0123&uid=device-1");
  EXPECT_EQ(refused.status, 403);
  EXPECT_EQ(collector_->collector().settingsRequests("device-1"), 1);
}

// An envelope sealed by the openssl command line (or Python's cryptography),
// not by the library: the collector reads the pipeline, not one implementation.
std::optional<std::string> sealIndependently(const std::string& json, const std::string& key,
                                             const std::string& directory) {
  const std::string plain = directory + "/plain.json";
  std::ofstream(plain) << json;
  std::string hexKey;
  for (unsigned char c : key.substr(0, 16)) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", c);
    hexKey += pair;
  }
  hexKey.resize(32, '0');
  const std::string openssl = "gzip -c '" + plain + "' | openssl enc -aes-128-ecb -nosalt -K " +
                              hexKey + " 2>/dev/null | base64 -w0";
  const std::string python =
      "python3 -c 'import base64,gzip,sys\n"
      "from cryptography.hazmat.primitives.ciphers import Cipher,algorithms,modes\n"
      "from cryptography.hazmat.primitives import padding\n"
      "data=gzip.compress(open(sys.argv[1],\"rb\").read())\n"
      "p=padding.PKCS7(128).padder(); data=p.update(data)+p.finalize()\n"
      "e=Cipher(algorithms.AES(bytes.fromhex(sys.argv[2])),modes.ECB()).encryptor()\n"
      "print(base64.b64encode(e.update(data)+e.finalize()).decode(),end=\"\")' '" +
      plain + "' " + hexKey + " 2>/dev/null";
  for (const std::string& command : {openssl, python}) {
    std::FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) continue;
    std::string out;
    char chunk[4096];
    std::size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) out.append(chunk, got);
    if (::pclose(pipe) == 0 && !out.empty()) return out;
  }
  return std::nullopt;
}

TEST_F(CollectorTest, ReadsAnEnvelopeSealedByAnIndependentEncoder) {
  const std::string json =
      R"({"t":{"t_2":"other-device","t_12":"7"},"a":[{"a_t":"2","a_1":"ü tap"},{"a_t":"7"}]})";
  // A key shorter than 16 bytes is padded with zero bytes on both sides.
  const std::string key = "short";
  const auto sealed = sealIndependently(json, key, documents_);
  if (!sealed) GTEST_SKIP() << "neither openssl nor python3 cryptography is available";
  collector_.reset();
  collector::LocalCollectorOptions options;
  options.database = database_;
  options.collector.key = key;
  options.collector.clock = [clock = clock_] {
    return std::chrono::system_clock::from_time_t(static_cast<std::time_t>(clock->wallSeconds()));
  };
  options.output = collector::Output::kQuiet;
  options.log = log_;
  std::string error;
  collector_ = collector::LocalCollector::start(options, error);
  ASSERT_TRUE(collector_) << error;

  const Reply reply = postForm(collector_->port(), "/log", logForm(*sealed, today()));
  EXPECT_EQ(reply.status, 200) << reply.body;
  EXPECT_EQ(reply.contentType, "application/json");
  EXPECT_EQ(reply.body, "{\"operate_code\":\"200\"}\n");
  const auto records = collector_->store().records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].body, R"({"a_t":"2","a_1":"ü tap"})");
  EXPECT_EQ(records[1].name, "network");
  EXPECT_EQ(collector_->store().delivered("other-device").uploads, 1);
}

TEST_F(CollectorTest, YesterdaysTokenIsStillAccepted) {
  const std::string yesterday = acceptedDayTokens(
      std::chrono::system_clock::from_time_t(static_cast<std::time_t>(clock_->wallSeconds())))[1];
  const Reply reply = postForm(port_, "/log", logForm(sealJson(R"({"t":"","a":[]})"), yesterday));
  EXPECT_EQ(reply.status, 200) << reply.body;
  EXPECT_EQ(collector_->store().delivered().uploads, 1);
}

TEST_F(CollectorTest, RefusesEachBadInputWithAReasonAndStoresNothing) {
  const std::string good = sealJson(R"({"t":{},"a":[{"a_t":"2"}]})");
  const std::string token = today();
  struct Case {
    const char* what;
    Reply reply;
    int status;
    const char* reason;
  };
  const Case cases[] = {
      {"missing log_data", postForm(port_, "/log", "token=" + token), 400,
       "missing field log_data"},
      {"missing token", postForm(port_, "/log", "log_data=" + formEncode(good)), 403,
       "missing field token"},
      {"wrong token", postForm(port_, "/log", logForm(good, dayToken(2001, 1, 1))), 403,
       "wrong token"},
      {"bad base64", postForm(port_, "/log", logForm("not*base64", token)), 400,
       "log_data: base64:"},
      {"wrong key",
       postForm(port_, "/log", logForm(sealJson("{\"t\":{},\"a\":[]}", "other"), token)), 400,
       "log_data: "},
      {"garbage after decryption",
       postForm(port_, "/log", logForm(seal("this is not a gzip member at all"), token)), 400,
       "log_data: gzip:"},
      {"not JSON", postForm(port_, "/log", logForm(sealJson("{\"t\":"), token)), 400,
       "log_data: json:"},
      {"not an upload body", postForm(port_, "/log", logForm(sealJson("[1,2]"), token)), 400,
       "log_data: the body is not"},
      {"a record that is not an object",
       postForm(port_, "/log", logForm(sealJson(R"({"t":{},"a":[1]})"), token)), 400,
       "log_data: a record is not an object"},
      {"missing diagnosis_log", postForm(port_, "/diagnosis", "token=" + token), 400,
       "missing field diagnosis_log"},
      {"diagnosis report that is not an object",
       postForm(port_, "/diagnosis",
                "diagnosis_log=" + formEncode(sealJson("\"x\"")) + "&token=" + token),
       400, "diagnosis_log: the report is not an object"},
      {"oversized body", postForm(port_, "/log", logForm(std::string(70 << 10, 'A'), token)), 413,
       "body too large"},
      {"wrong method", get(port_, "/log"), 405, "/log takes POST"},
      {"unknown path", get(port_, "/upload"), 404, "no such path"},
      {"malformed request", roundTrip(port_, "NONSENSE\r\n\r\n"), 400, "malformed request line"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.reply.status, c.status) << c.what << ": " << c.reply.body;
    EXPECT_EQ(c.reply.body.find(c.reason), 0u) << c.what << ": " << c.reply.body;
    EXPECT_EQ(std::count(c.reply.body.begin(), c.reply.body.end(), '\n'), 1) << c.what;
  }
  EXPECT_TRUE(nothingStored());
  // One log line per refusal, and the server still serves.
  const std::string log = readAll(log_);
  EXPECT_EQ(static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n')), std::size(cases))
      << log;
  EXPECT_NE(log.find("413 POST /log from 127.0.0.1:"), std::string::npos) << log;
  EXPECT_EQ(postForm(port_, "/log", logForm(good, token)).status, 200);
  EXPECT_EQ(collector_->store().delivered().uploads, 1);
}

TEST_F(CollectorTest, AConfiguredRefusalMakesTheLibraryDropOrRepeatAndStoresNothing) {
  collector::CollectorStore& store = collector_->store();
  collector::CollectorOptions dropping;
  dropping.key = kTestKey;
  dropping.answerCode = "500";
  collector::Collector refusing(dropping, store);
  collector::HttpServerRequest request;
  request.method = "POST";
  request.path = "/log";
  request.params = {{"log_data", sealJson(R"({"t":{},"a":[]})")},
                    {"token", *acceptedDayTokens(std::chrono::system_clock::now()).begin()}};
  collector::HttpServerAnswer answer = refusing.handle(request);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "{\"operate_code\":\"500\"}\n");

  collector::CollectorOptions failing = dropping;
  failing.answerCode = "200";
  failing.answerStatus = 503;
  answer = collector::Collector(failing, store).handle(request);
  EXPECT_EQ(answer.status, 503);
  EXPECT_TRUE(nothingStored());
}

TEST(CollectorReport, PrintsTheHeaderOnceAndEachRecordByName) {
  collector::UploadRow upload;
  upload.peer = "127.0.0.1:1";
  upload.header = makeStringDictionary({{"t_2", "dev"}});
  Dictionary film = makeStringDictionary({{"a_t", "1"}, {"a_7", "42"}});
  film.set("p", Value(Array{Value(makeStringDictionary({{"p_2", "5"}})), Value(Dictionary())}));
  upload.records = {Value(makeStringDictionary({{"a_t", "0"}})), Value(film)};
  const std::string text = collector::describeUpload(3, upload);
  EXPECT_EQ(text,
            "upload #3 from 127.0.0.1:1: 2 records\n"
            "  header           {\"t_2\":\"dev\"}\n"
            "  launch           {\"a_t\":\"0\"}\n"
            "  film play        {\"a_t\":\"1\",\"a_7\":\"42\"}\n"
            "    play action      {\"p_2\":\"5\"}\n"
            "    play action      {} (a repeated buffering report, dropped)\n");
  EXPECT_EQ(collector::prettyJson(Value(makeStringDictionary({{"b", "1"}, {"a", "2"}}))),
            "{\n  \"b\": \"1\",\n  \"a\": \"2\"\n}");
}

}  // namespace
}  // namespace qxlog
