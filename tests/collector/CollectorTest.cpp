// The collector against what the library really sends, against an independent
// encoder, and against every kind of bad input; the report and the legend;
// and its HTTP front against clients that hold connections: the limits per
// client address and in all, and the deadline of a whole request, with small
// limits so that the attacks are quick. Other clients are served throughout.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/format/PlaySessionRecords.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Codecs.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "collector/decode/JsonShape.h"
#include "collector/http/HttpServer.h"
#include "collector/legend/FieldLegend.h"
#include "collector/print/Report.h"
#include "collector/server/LocalCollector.h"
#include "tests/support/HttpClient.h"
#include "tests/support/UploadFixture.h"

namespace qxlog {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using collector::acceptedDayTokens;
using collector::dayToken;
using collector::HttpServer;
using testing::connectFrom;
using testing::formEncode;
using testing::get;
using testing::HttpReply;
using testing::kTestKey;
using testing::postForm;
using testing::roundTrip;

// log_data as the library seals it, from a plain body text.
std::string seal(const std::string& plain, const std::string& key = kTestKey) {
  return support::base64Encode(*QXLogHelper::data_AES256(plain, key));
}
std::string sealJson(const std::string& json, const std::string& key = kTestKey) {
  return seal(*QXLogHelper::gzipDeflate(json), key);
}

std::string readAll(std::FILE* file) {
  std::rewind(file);
  return testing::readToEnd(::fileno(file));
}

TEST(CollectorDayToken, AcceptsTodayAndYesterdayAcrossMonthAndYearEnds) {
  ::setenv("TZ", "UTC0", 1);
  ::tzset();
  EXPECT_EQ(dayToken(2024, 3, 1), *QXLogHelper::md5String("2024-03-01Rk4TqzWmLpVhNc7XsJdBfYoE"s));
  auto at = [](std::time_t utc) {
    return acceptedDayTokens(std::chrono::system_clock::from_time_t(utc));
  };
  using Tokens = std::vector<std::string>;
  // 2024-03-01 12:00 and 2025-01-01 00:00.
  EXPECT_EQ(at(1709294400), (Tokens{dayToken(2024, 3, 1), dayToken(2024, 2, 29)}));
  EXPECT_EQ(at(1735689600), (Tokens{dayToken(2025, 1, 1), dayToken(2024, 12, 31)}));
}

TEST(EnvelopeDecoder, RejectsMalformedBase64BadBlocksAndAnythingButOneGzipMember) {
  EXPECT_EQ(collector::base64Decode("Zm9v\nYmFy\r\n").value, "foobar"s);
  for (const char* bad : {"Zm9", "Zm9vY", "=Zm9", "Zm==Zm9v", "Zm9v====", "Zm-v"}) {
    EXPECT_FALSE(collector::base64Decode(bad)) << bad;
  }
  EXPECT_FALSE(collector::decryptLogData(std::string(15, 'x'), "k"s));
  const std::string member = *QXLogHelper::gzipDeflate("body"s);
  EXPECT_EQ(collector::gunzip(member).value, "body"s);
  EXPECT_FALSE(collector::gunzip(member + member));
  EXPECT_FALSE(collector::gunzip(member.substr(0, member.size() - 1)));
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
    start(kTestKey);
  }
  void start(const std::string& key) {
    collector_.reset();
    collector::LocalCollectorOptions options;
    options.database = documentsPath("collector.db");
    options.maxBodyBytes = 64 << 10;
    options.collector.key = key;
    options.collector.pushIntervalTime = 1500;
    options.collector.pushIntervalNumber = 7;
    options.collector.clock = [clock = clock_] {
      return std::chrono::system_clock::time_point(
          std::chrono::milliseconds(static_cast<int64_t>(clock->wallSeconds() * 1000)));
    };
    yesterday_ = acceptedDayTokens(options.collector.clock())[1];
    options.out = out_;
    options.log = log_;
    std::string error;
    collector_ = collector::LocalCollector::start(options, error);
    ASSERT_TRUE(collector_) << error;
    port_ = collector_->port();
    format().setPushUrl(collector_->baseUrl() + "/settings");
    format().setPushLogUrl(collector_->baseUrl() + "/log");
    format().setPushDiagnosisUrl(collector_->baseUrl() + "/diagnosis");
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
    return store.delivered().uploads == 0 && store.records().empty() && store.diagnoses().empty();
  }

  std::unique_ptr<collector::LocalCollector> collector_;
  std::string yesterday_;  // the other token the collector accepts
  int port_ = 0;
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
  EXPECT_EQ(actions[0].body,
            R"({"a_t":"2","a_0":"1700000000000","a_1":"tap","a_2":"1700000000000",)"
            R"("a_3":"1700000000000","a_4":"0","a_5":"3"})");
  const auto diagnoses = store.diagnoses();
  ASSERT_EQ(diagnoses.size(), 1u);
  // After the peer's address, which changes from run to run.
  EXPECT_EQ(diagnoses[0].substr(diagnoses[0].find(R"(,"user_id")")),
            R"(,"user_id":"42","uid":"device-1","user_phone":"","velin":"","version":"velin",)"
            R"("report":{"user_info":{"userID":"42","userPhone":""},"dev_info":{"deviceID":)"
            R"("device-1","devBrand":"","devMode":"","deviceResolution":"1.000000",)"
            R"("devSystemVersion":""},"play_info":{"playUrl":"http://127.0.0.1/a.m3u8",)"
            R"("decodeType":"1","definition":"hd","isPlayOK":"0","causeOfFailure":"timeout",)"
            R"("startTime":"1","prepareTime":"3","endTime":"2","duration":"4"}}})");

  // Each was confirmed: nothing waits for a repeat, and the report names the records.
  EXPECT_TRUE(center().actionLog().empty());
  const std::string printed = readAll(out_);
  for (const char* line : {"upload #1", "launch ", "action ", "diagnosis #1"}) {
    EXPECT_NE(printed.find(line), std::string::npos) << line << "\n" << printed;
  }
}

TEST_F(CollectorTest, SettingsAnswerReachesTheLibrary) {
  center().getLogServerInfo();
  settle();
  EXPECT_EQ(format().limitLogCount(), 7);
  EXPECT_EQ(serial::integerValue(format().push_interval_time()), 1500);
  EXPECT_EQ(serial::integerValue(format().current_time()),
            static_cast<int64_t>(clock_->wallSeconds() * 1000));
  EXPECT_EQ(collector_->collector().settingsRequests("device-1"), 1);
  EXPECT_EQ(get(port_, "/settings?token=0123&uid=device-1").status, 403);
  EXPECT_EQ(collector_->collector().settingsRequests("device-1"), 1);
}

TEST_F(CollectorTest, ReadsAnEnvelopeSealedByAnIndependentEncoder) {
  // The openssl command line, not the library: the collector reads the
  // pipeline, not one implementation. A short key is padded with zero bytes.
  const std::string plain = documentsPath("plain.json");
  std::ofstream(plain)
      << R"({"t":{"t_2":"other-device","t_12":"7"},"a":[{"a_t":"2","a_1":"ü tap"},{"a_t":"7"}]})";
  const testing::Finished sealed =
      testing::run("gzip -c '" + plain + "' | openssl enc -aes-128-ecb -nosalt -K " +
                   "73686f72740000000000000000000000 | base64 -w0");
  if (sealed.status != 0) GTEST_SKIP() << "no openssl: " << sealed.output;
  start("short");

  const HttpReply reply = postForm(port_, "/log", logForm(sealed.output, today()));
  EXPECT_EQ(reply.status, 200) << reply.body;
  EXPECT_NE(reply.head.find("\r\nContent-Type: application/json\r\n"), std::string::npos);
  EXPECT_EQ(reply.body, "{\"operate_code\":\"200\"}\n");
  const auto records = collector_->store().records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].body, R"({"a_t":"2","a_1":"ü tap"})");
  EXPECT_EQ(records[1].name, "network");
  EXPECT_EQ(collector_->store().delivered("other-device").uploads, 1);
}

TEST_F(CollectorTest, RefusesEachBadInputWithAReasonAndStoresNothing) {
  const std::string good = sealJson(R"({"t":{},"a":[{"a_t":"2"}]})");
  const std::string token = today();
  auto toLog = [&](const std::string& data) {
    return postForm(port_, "/log", logForm(data, token));
  };
  const struct {
    HttpReply reply;
    int status;
    const char* reason;
  } cases[] = {
      {postForm(port_, "/log", "token=" + token), 400, "missing field log_data"},
      {postForm(port_, "/log", "log_data=" + formEncode(good)), 403, "missing field token"},
      {postForm(port_, "/log", logForm(good, dayToken(2001, 1, 1))), 403, "wrong token"},
      {toLog("not*base64"), 400, "log_data: base64:"},
      {toLog(sealJson("{\"t\":{},\"a\":[]}", "other")), 400, "log_data: "},
      {toLog(seal("this is not a gzip member at all")), 400, "log_data: gzip:"},
      {toLog(sealJson("{\"t\":")), 400, "log_data: json:"},
      {toLog(sealJson("[1,2]")), 400, "log_data: the body is not"},
      {toLog(sealJson(R"({"t":{},"a":[1]})")), 400, "log_data: a record is not an object"},
      {toLog(std::string(70 << 10, 'A')), 413, "body too large"},
      {postForm(port_, "/diagnosis", "token=" + token), 400, "missing field diagnosis_log"},
      {postForm(port_, "/diagnosis",
                "diagnosis_log=" + formEncode(sealJson("\"x\"")) + "&token=" + token),
       400, "diagnosis_log: the report is not an object"},
      {get(port_, "/log"), 405, "/log takes POST"},
      {get(port_, "/upload"), 404, "no such path"}};
  // A request line that is not HTTP is turned away by the server library
  // itself, before any handler: no answer of ours, nothing logged.
  EXPECT_NE(roundTrip(port_, "NONSENSE\r\n\r\n").status, 200);
  for (const auto& c : cases) {
    EXPECT_EQ(c.reply.status, c.status) << c.reason << ": " << c.reply.body;
    EXPECT_EQ(c.reply.body.find(c.reason), 0u) << c.reason << ": " << c.reply.body;
    EXPECT_EQ(std::count(c.reply.body.begin(), c.reply.body.end(), '\n'), 1) << c.reason;
  }
  EXPECT_TRUE(nothingStored());
  // One log line per refusal, and the server still serves, yesterday's token too.
  const std::string log = readAll(log_);
  EXPECT_EQ(static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n')), std::size(cases))
      << log;
  EXPECT_NE(log.find("413 POST /log from 127.0.0.1:"), std::string::npos) << log;
  EXPECT_EQ(postForm(port_, "/log", logForm(good, yesterday_)).status, 200);
  EXPECT_EQ(collector_->store().delivered().uploads, 1);
}

TEST_F(CollectorTest, AConfiguredRefusalStoresNothing) {
  collector::CollectorOptions options;
  options.key = kTestKey;
  options.answerCode = "500";
  collector::HttpServerRequest request;
  request.method = "POST";
  request.path = "/log";
  request.params = {{"log_data", sealJson(R"({"t":{},"a":[]})")},
                    {"token", acceptedDayTokens(std::chrono::system_clock::now())[0]}};
  collector::HttpServerAnswer answer =
      collector::Collector(options, collector_->store()).handle(request);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "{\"operate_code\":\"500\"}\n");
  options.answerCode = "200";
  options.answerStatus = 503;
  EXPECT_EQ(collector::Collector(options, collector_->store()).handle(request).status, 503);
  EXPECT_TRUE(nothingStored());
}

TEST(CollectorReport, PrintsTheHeaderOnceAndEachRecordByName) {
  collector::UploadRow upload;
  upload.peer = "127.0.0.1:1";
  upload.header = makeStringDictionary({{"t_2", "dev"}});
  Dictionary film = makeStringDictionary({{"a_t", "1"}, {"a_7", "42"}});
  film.set("p", Value(Array{Value(makeStringDictionary({{"p_2", "5"}})), Value(Dictionary())}));
  upload.records = {Value(makeStringDictionary({{"a_t", "0"}})), Value(film)};
  EXPECT_EQ(collector::describeUpload(3, upload),
            "upload #3 from 127.0.0.1:1: 2 records\n"
            "  header           {\"t_2\":\"dev\"}\n"
            "  launch           {\"a_t\":\"0\"}\n"
            "  film play        {\"a_t\":\"1\",\"a_7\":\"42\"}\n"
            "    play action      {\"p_2\":\"5\"}\n"
            "    play action      {} (a repeated buffering report, dropped)\n");
  EXPECT_EQ(collector::prettyJson(Value(makeStringDictionary({{"b", "1"}, {"a", "2"}}))),
            "{\n  \"b\": \"1\",\n  \"a\": \"2\"\n}");
}

// A flood of records gets its limit's answer and nothing is stored (an
// inflation bomb is a row of the oversized table below); a line feed in a
// path cannot start a line of its own in the log.
TEST_F(CollectorTest, AFloodOfRecordsIsRefusedAndWhatIsLoggedIsEscaped) {
  std::string many = "{\"t\":{},\"a\":[{}";
  for (int i = 0; i < 10000; ++i) many += ",{}";
  HttpReply flood = postForm(port_, "/log", logForm(sealJson(many + "]}"), today()));
  EXPECT_EQ(flood.status, 413);
  EXPECT_NE(flood.body.find("more than 10000 records"), std::string::npos);
  EXPECT_TRUE(nothingStored());

  roundTrip(port_, "GET /x\nqxlog-collector: forged HTTP/1.1\r\n\r\n");
  roundTrip(port_, "GET /y\rqxlog-collector: forged HTTP/1.1\r\n\r\n");
  std::string log = readAll(log_);
  EXPECT_EQ(log.find("\nqxlog-collector: forged"), std::string::npos) << log;
  EXPECT_EQ(log.find("\rqxlog-collector:"), std::string::npos) << log;
}

// The shape check walks the bytes once: brackets and quotes inside strings
// are not structure, each limit holds at its value and fails one past it.
TEST(JsonShape, CountsStructureOutsideStringsAndStopsOnePastEachLimit) {
  collector::JsonShapeLimits small;
  small.maxDepth = 3;
  small.maxElements = 3;
  small.maxStringBytes = 4;
  small.maxValues = 9;
  collector::JsonShapeLimits uploads = small;
  uploads.maxRecords = 5;
  const struct {
    const char* json;
    const collector::JsonShapeLimits& limits;
    const char* reason;  // "" within the limits
  } cases[] = {
      {R"([[[1]]])", small, ""},
      {R"([[[[1]]]])", small, "nested deeper than 3 levels"},
      {R"(["[[[[", "\"{{"])", small, ""},
      {R"([1,2,3])", small, ""},
      {R"([1,2,3,4])", small, "an array or object of more than 3 elements"},
      {R"({"a":1,"b":[],"c":{}})", small, ""},
      {R"({"a":1,"b":2,"c":3,"d":4})", small, "an array or object of more than 3 elements"},
      {R"(["abcd"])", small, ""},
      {R"(["abcde"])", small, "a string of more than 4 bytes"},
      {R"({"abcde":1})", small, "a string of more than 4 bytes"},
      {R"([[1,2,3],[1,2,3]])", small, ""},
      {R"([[1,2,3],[1,2,3],1])", small, "more than 9 values"},
      {R"({"a":[{},{},{},{},{}]})", uploads, ""},
      {R"({"a":[{},{},{},{},{},{}]})", uploads, "more than 5 records"},
      {R"({"t":"a","x":[1,2,3,4]})", uploads, "an array or object of more than 3 elements"},
      {R"({"t":{"a":[1,2,3,4]}})", uploads, "an array or object of more than 3 elements"},
      {R"([{"a":[1,2,3,4]}])", uploads, "an array or object of more than 3 elements"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(collector::checkJsonShape(c.json, c.limits), c.reason) << c.json;
  }
}

// Every oversized structure, on both decoding endpoints: refused with 413 and
// the limit it passed, nothing stored, the body never built. The bodies are
// small on the wire (under the test's 64 KiB) and large once inflated.
TEST_F(CollectorTest, OversizedStructuresAreRefusedOnLogAndDiagnosisAlike) {
  auto repeat = [](const std::string& part, std::size_t times) {
    std::string out;
    out.reserve(part.size() * times);
    for (std::size_t i = 0; i < times; ++i) out += part;
    return out;
  };
  auto upload = [](const std::string& record) { return "{\"t\":{},\"a\":[" + record + "]}"; };
  const struct {
    std::string json;
    const char* reason;
  } cases[] = {
      {upload(repeat("[", 40) + repeat("]", 40)), "json: nested deeper than 32 levels"},
      {upload("{\"x\":[0" + repeat(",0", 4 << 20) + "]}"),
       "json: an array or object of more than 10000 elements"},
      {upload("{" + repeat("\"k\":0,", 10001) + "\"k\":0}"),
       "json: an array or object of more than 10000 elements"},
      {upload("{\"x\":\"" + std::string((1 << 20) + 1, 'x') + "\"}"),
       "json: a string of more than 1048576 bytes"},
      {upload(repeat("[0" + repeat(",0", 8999) + "],", 60) + "[]"),
       "json: more than 500000 values"},
      {upload("\"" + std::string(17 << 20, '0') + "\""), "gzip: inflates past 16777216 bytes"},
  };
  const std::string token = today();
  for (const auto& c : cases) {
    const std::string sealed = sealJson(c.json);
    ASSERT_LT(sealed.size(), 48u << 10) << c.reason;
    const HttpReply log = postForm(port_, "/log", logForm(sealed, token));
    EXPECT_EQ(log.status, 413) << c.reason;
    EXPECT_EQ(log.body, "log_data: "s + c.reason + "\n");
    const HttpReply diagnosis =
        postForm(port_, "/diagnosis", "diagnosis_log=" + formEncode(sealed) + "&token=" + token);
    EXPECT_EQ(diagnosis.status, 413) << c.reason;
    EXPECT_EQ(diagnosis.body, "diagnosis_log: "s + c.reason + "\n");
  }
  EXPECT_TRUE(nothingStored());
}

// A collector of its own with the given API token (none: empty), storing in
// a fresh temporary directory.
std::unique_ptr<collector::LocalCollector> startCollector(const std::string& apiToken,
                                                          const std::string& host = "127.0.0.1") {
  char pattern[] = "/tmp/qxlog-access-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return nullptr;
  collector::LocalCollectorOptions options;
  options.host = host;
  options.database = std::string(pattern) + "/collector.db";
  options.collector.key = kTestKey;
  options.apiToken = apiToken;
  options.output = collector::Output::kQuiet;
  options.log = std::tmpfile();
  std::string error;
  auto started = collector::LocalCollector::start(options, error);
  EXPECT_TRUE(started) << error;
  return started;
}

std::string requestWith(const std::string& target, const std::string& headers) {
  return "GET " + target + " HTTP/1.1\r\n" + headers + "\r\n";
}

TEST(CollectorAccess, TheTokenGuardsWhatWasStoredAndDevicesStayOpen) {
  auto collector = startCollector("s3cret-token");
  ASSERT_TRUE(collector);
  const int port = collector->port();
  const std::string host = "Host: collector.example\r\n";
  const std::string dayToken = acceptedDayTokens(std::chrono::system_clock::now())[0];
  auto basic = [](const std::string& pair) {
    return "Authorization: Basic " + support::base64Encode(pair) + "\r\n";
  };
  const struct {
    std::string target;
    std::string authorization;
    int status;
  } cases[] = {
      {"/api/summary", "", 401},
      {"/api/summary", "Authorization: Bearer s3cret-token\r\n", 200},
      {"/api/summary", "Authorization: bearer  s3cret-token \r\n", 200},
      {"/api/summary", "Authorization: Bearer s3cret-toke\r\n", 401},
      {"/api/summary", "Authorization: Bearer s3cret-tokenx\r\n", 401},
      {"/api/summary", "Authorization: Bearer \r\n", 401},
      {"/api/summary", "Authorization: s3cret-token\r\n", 401},
      {"/api/summary", basic("anyone:s3cret-token"), 200},
      {"/api/summary", basic("s3cret-token:"), 401},
      {"/api/summary", basic("s3cret-token"), 401},
      {"/", "", 401},
      {"/", basic(":s3cret-token"), 200},
      {"/received", "", 401},
      {"/received", "Authorization: Bearer s3cret-token\r\n", 200},
      {"/no-such-path", "", 401},
      {"/settings?token=" + dayToken + "&uid=d", "", 200},
      {"/log", "", 405},
  };
  for (const auto& c : cases) {
    const HttpReply reply = roundTrip(port, requestWith(c.target, host + c.authorization));
    EXPECT_EQ(reply.status, c.status) << c.target << " " << c.authorization;
    const bool challenged =
        reply.head.find("\r\nWWW-Authenticate: Basic realm=") != std::string::npos;
    EXPECT_EQ(challenged, c.status == 401) << c.target << " " << reply.head;
  }
  // A login to the page sets a session cookie that the page's requests carry.
  const HttpReply login = roundTrip(port, requestWith("/", host + basic("viewer:s3cret-token")));
  const std::size_t at = login.head.find("\r\nSet-Cookie: qxlog_session=");
  ASSERT_NE(at, std::string::npos) << login.head;
  const std::string session = login.head.substr(at + 14, login.head.find(';', at) - at - 14);
  EXPECT_EQ(login.head.find("s3cret-token"), std::string::npos);
  EXPECT_NE(login.head.find("HttpOnly; SameSite=Strict"), std::string::npos);
  for (const auto& [cookie, status] : std::vector<std::pair<std::string, int>>{
           {"a=1; " + session, 200}, {session + "0", 401}, {"qxlog_session=", 401}}) {
    EXPECT_EQ(
        roundTrip(port, requestWith("/api/summary", host + "Cookie: " + cookie + "\r\n")).status,
        status)
        << cookie;
  }
}

TEST(CollectorAccess, WithoutATokenOnlyLoopbackAndItsOwnHostNamesAreAnswered) {
  std::string error;
  collector::LocalCollectorOptions anywhere;
  anywhere.host = "0.0.0.0";
  anywhere.database = "/nonexistent/never-opened.db";
  EXPECT_FALSE(collector::LocalCollector::start(anywhere, error));
  EXPECT_NE(error.find("refusing to listen on 0.0.0.0 without an API token"), std::string::npos)
      << error;
  EXPECT_TRUE(startCollector("token", "0.0.0.0"));

  auto collector = startCollector("");
  ASSERT_TRUE(collector);
  const int port = collector->port();
  const std::string own = ":" + std::to_string(port);
  const std::string dayToken = acceptedDayTokens(std::chrono::system_clock::now())[0];
  const struct {
    std::string target;
    std::string host;  // the Host header line, or none
    int status;
  } cases[] = {
      {"/received", "Host: 127.0.0.1" + own + "\r\n", 200},
      {"/received", "Host: localhost" + own + "\r\n", 200},
      {"/received", "Host: LocalHost" + own + "\r\n", 200},
      {"/received", "Host: [::1]" + own + "\r\n", 200},
      {"/api/summary", "Host: localhost" + own + "\r\n", 200},
      {"/received", "", 200},
      {"/received", "Host: rebound.example" + own + "\r\n", 403},
      {"/", "Host: rebound.example" + own + "\r\n", 403},
      {"/received", "Host: 127.0.0.1\r\n", 403},
      {"/received", "Host: 127.0.0.1:1\r\n", 403},
      {"/received", "Host: 127.0.0.2" + own + "\r\n", 403},
      // Device paths answer under any name: a proxy in front forwards its own.
      {"/settings?token=" + dayToken + "&uid=d", "Host: rebound.example" + own + "\r\n", 200},
      {"/settings?token=" + dayToken + "&uid=d", "Host: 127.0.0.1" + own + "\r\n", 200},
  };
  for (const auto& c : cases) {
    const HttpReply reply = roundTrip(port, requestWith(c.target, c.host));
    EXPECT_EQ(reply.status, c.status) << c.target << " " << c.host;
  }
}

TEST(CollectorAccess, ALongStoredRecordIsServedCutWithItsLength) {
  auto collector = startCollector("t");
  ASSERT_TRUE(collector);
  const std::string token = acceptedDayTokens(std::chrono::system_clock::now())[0];
  const std::string body = R"({"t":{},"a":[{"a_t":"2","a_1":")" + std::string(100000, 'x') +
                           R"("},{"a_t":"2","a_1":"short"}]})";
  const HttpReply stored = postForm(collector->port(), "/log",
                                    "log_data=" + formEncode(sealJson(body)) + "&token=" + token);
  ASSERT_EQ(stored.status, 200) << stored.body;
  const HttpReply records =
      roundTrip(collector->port(), requestWith("/api/records", "Authorization: Bearer t\r\n"));
  ASSERT_EQ(records.status, 200);
  auto list = nlohmann::json::parse(records.body);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_FALSE(list[0].contains("cut"));  // the latest first: the short one, whole
  EXPECT_EQ(list[0]["fields"].size(), 2u);
  EXPECT_EQ(list[1]["cut"], true);
  EXPECT_GE(list[1]["length"].get<int64_t>(), 100000);  // the whole record, as stored
  EXPECT_LT(list[1]["length"].get<int64_t>(), 100100);
  EXPECT_EQ(list[1]["head"].get<std::string>().size(), 65536u);
  EXPECT_LT(records.body.size(), 70000u);
}

TEST_F(CollectorTest, AReplayedUploadIsConfirmedAndStoredOnce) {
  std::string form = logForm(sealJson(R"({"t":{"t_2":"d"},"a":[{"a_t":"2","a_1":"x"}]})"), today());
  for (int i = 0; i < 3; ++i) {
    HttpReply reply = postForm(port_, "/log", form);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "{\"operate_code\":\"200\"}\n");
  }
  collector::Delivered delivered = collector_->store().delivered();
  EXPECT_EQ(delivered.uploads, 1);
  EXPECT_EQ(delivered.replays, 2);
  EXPECT_EQ(collector_->store().records().size(), 1u);
  EXPECT_NE(get(port_, "/received").body.find("\"replays\":2"), std::string::npos);
  // Another day's token makes it another upload.
  EXPECT_EQ(postForm(port_, "/log", logForm(sealJson(R"({"t":{},"a":[]})"), yesterday_)).status,
            200);
  EXPECT_EQ(collector_->store().delivered().uploads, 2);
}

TEST_F(CollectorTest, FieldsThatAreNotUtf8AreStoredAndPrintedAsValidUtf8) {
  std::string form = "diagnosis_log=" + formEncode(sealJson(R"({"play_info":{}})")) +
                     "&token=" + formEncode(today()) + "&user_id=a%FFb&uid=dev%C3&user_phone=1";
  EXPECT_EQ(postForm(port_, "/diagnosis", form).status, 200);
  const auto diagnoses = collector_->store().diagnoses();
  ASSERT_EQ(diagnoses.size(), 1u);
  EXPECT_NE(diagnoses[0].find("a\xEF\xBF\xBD"
                              "b"),
            std::string::npos)
      << diagnoses[0];
  EXPECT_EQ(serial::validUtf8(diagnoses[0]), diagnoses[0]);
  EXPECT_EQ(collector::printable("a\nb\x01\xff"), "a\\nb\\x01\xEF\xBF\xBD");
}

// The field legend against the records the library really builds: every key
// of every record family, of the play actions and of the header has a
// meaning, so the legend cannot fall behind the builders unnoticed.
using collector::LegendTable;

class LegendTest : public testing::LibraryTest {};

void expectEveryKeyExplained(LegendTable table, const Dictionary& record) {
  for (const auto& [key, value] : record) {
    EXPECT_FALSE(collector::meaningOf(table, key).empty())
        << "no meaning for " << key << " in table " << static_cast<int>(table);
  }
}

TEST_F(LegendTest, EveryKeyOfEveryRecordFamilyHasAMeaning) {
  QXLogCenter& center = QXLogCenter::center();
  center.format().setLimitLogCount(1000);
  logEnvReady(true);
  recordLaunchLogWithPushId("cold", "push-1");
  recordActionLog("home.open", "3");
  recordNetworkLog("http://127.0.0.1/api", 120, "500");
  QXLogCenterSaveActionStartTime("m1");
  recordDownLog("m1", "http://127.0.0.1/m1.mp4", "film", "10", "/data/m1", "1");
  recordMoviePlayLog("m1", "http://127.0.0.1/m1.m3u8", "home", false, nullptr);
  recordPlayActionLog("5", "1", "1000", "2000", "0", "10", "1000");
  center.makePlayLog();

  const std::vector<LegendTable> expected = {LegendTable::kLaunch, LegendTable::kAction,
                                             LegendTable::kNetwork, LegendTable::kDownload,
                                             LegendTable::kPlay};
  Array records = center.actionLog();
  ASSERT_EQ(records.size(), expected.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    const Dictionary& record = *records[i].asDictionary();
    EXPECT_EQ(collector::legendTableOf(record), expected[i]) << i;
    expectEveryKeyExplained(expected[i], record);
  }
  const Value* actions = records.back().asDictionary()->find("p");
  ASSERT_TRUE(actions != nullptr && actions->asArray() != nullptr);
  expectEveryKeyExplained(LegendTable::kPlayAction, *(*actions->asArray())[0].asDictionary());
  expectEveryKeyExplained(LegendTable::kHeader, center.format().publicLog());
}

TEST(LegendTextTest, ExplainsValuesBesideTheirMeaningAndListsEveryTable) {
  Dictionary download = testing::strings({{"a_t", "3"}, {"a_13", "2048.00"}, {"zz", "odd"}});
  EXPECT_EQ(collector::explainRecord(download, "  "),
            "  a_t   3   # record type: 3 download\n"
            "  a_13  2048.00   # average rate since the start, KB/s\n"
            "  zz    odd\n");
  std::string legend = collector::legendText();
  for (const char* title : {"header", "launch record", "action record", "network record",
                            "download record", "play header", "play action"}) {
    EXPECT_NE(legend.find(title), std::string::npos) << title;
  }
}

TEST(LegendTextTest, NamesThePlayIdTheRenditionAndEverySummaryKey) {
  EXPECT_FALSE(collector::meaningOf(LegendTable::kPlay, format::kPlayIdKey).empty());
  for (const char* key : {format::kFromHeightKey, format::kToHeightKey, format::kBitrateKey}) {
    EXPECT_FALSE(collector::meaningOf(LegendTable::kPlayAction, key).empty()) << key;
  }
  // Every key of a real end-of-play summary is explained.
  format::PlayDescription play;
  play.playId = "0123456789abcdef0123456789abcdef";
  play.movieId = "film-1";
  format::PlayTimeline timeline(1000);
  timeline.end(2000, 0);
  Dictionary report = format::playSummaryReport(play, timeline, "", 2000);
  const Dictionary* summary = report.find("play_summary")->asDictionary();
  ASSERT_NE(summary, nullptr);
  EXPECT_GE(summary->size(), 17u);
  for (const auto& [key, value] : *summary) {
    EXPECT_FALSE(collector::meaningOf(LegendTable::kPlaySummary, key).empty()) << key;
  }
  std::string explained = collector::explainPlaySummary(Value(report), "  ");
  EXPECT_NE(explained.find("  play summary\n    play_id"), std::string::npos) << explained;
  EXPECT_NE(collector::legendText().find("end-of-play summary"), std::string::npos);
}

// The status of the answer to a whole GET sent from `from`, 0 for none.
int statusOf(const char* from, int port) {
  return roundTrip(port, "GET /ping HTTP/1.1\r\nHost: x\r\n\r\n", from).status;
}
class HttpServerTest : public ::testing::Test {
 protected:
  void start(HttpServer::Options options) {
    options.refused = [this](const collector::HttpServerRequest&, int status, const std::string&) {
      std::lock_guard lock(mutex_);
      refusals_.push_back(status);
    };
    server_ = std::make_unique<HttpServer>(options, [](const collector::HttpServerRequest&) {
      return collector::HttpServerAnswer{200, "text/plain", "pong\n"};
    });
    ASSERT_TRUE(server_->start()) << server_->error();
  }
  std::vector<int> refusals() {
    std::lock_guard lock(mutex_);
    return refusals_;
  }
  // Waits up to two seconds until the server holds `count` connections: it
  // accepts and closes them on its own threads, in any order, and a probe
  // counted beside a held connection would change which one is over a limit.
  void awaitOpen(std::size_t count) {
    for (int i = 0; i < 200 && server_->openConnections() != count; ++i) {
      std::this_thread::sleep_for(10ms);
    }
    ASSERT_EQ(server_->openConnections(), count);
  }
  std::unique_ptr<HttpServer> server_;
  std::mutex mutex_;
  std::vector<int> refusals_;
};

TEST_F(HttpServerTest, ConnectionsOverALimitAreAnswered503WhileOthersAreServed) {
  HttpServer::Options options;
  options.maxConnectionsPerClient = 2;
  options.maxConnections = 4;
  start(options);
  int port = server_->port();
  std::vector<int> held = {connectFrom("127.0.0.1", port), connectFrom("127.0.0.1", port)};
  awaitOpen(2);
  EXPECT_EQ(statusOf("127.0.0.1", port), 503);  // a third from the same address
  EXPECT_EQ(statusOf("127.0.0.2", port), 200);  // another address is served
  awaitOpen(2);                                 // the probes' places are free again
  held.push_back(connectFrom("127.0.0.3", port));
  held.push_back(connectFrom("127.0.0.4", port));
  awaitOpen(4);
  EXPECT_EQ(statusOf("127.0.0.5", port), 503);  // four open in all
  // A connection over the limit that sends nothing is closed after its grace,
  // so that it holds no place.
  int idle = connectFrom("127.0.0.1", port);
  std::string closed = testing::readToEnd(idle);
  ::close(idle);
  EXPECT_EQ(closed, "");
  for (int fd : held) ::close(fd);
  awaitOpen(0);
  EXPECT_EQ(statusOf("127.0.0.1", port), 200);  // served again once they are gone
  EXPECT_EQ(refusals(), (std::vector<int>{503, 503, 503}));
}

// A few addresses that each fill their own limit leave the last quarter of
// the places to addresses that hold none.
TEST_F(HttpServerTest, PlacesAreKeptForAddressesThatHoldNone) {
  HttpServer::Options options;
  options.maxConnectionsPerClient = 4;
  options.maxConnections = 8;  // two kept
  start(options);
  const int port = server_->port();
  std::vector<int> held;
  for (const char* from :
       {"127.0.0.2", "127.0.0.2", "127.0.0.2", "127.0.0.2", "127.0.0.3", "127.0.0.3"}) {
    held.push_back(connectFrom(from, port));
  }
  awaitOpen(6);
  EXPECT_EQ(statusOf("127.0.0.3", port), 503);  // under its own limit, but the rest is kept
  awaitOpen(6);
  EXPECT_EQ(statusOf("127.0.0.4", port), 200);  // a new address takes a kept place
  for (int fd : held) ::close(fd);
}

// Connections that hold a place without sending are cut off with a 408: a
// request that trickles past the whole request's deadline (one byte every
// 50 ms keeps a per-read timeout from ever firing), and, long before that
// deadline, headers that do not end in time and a body slower than the
// minimum rate.
TEST_F(HttpServerTest, TricklingRequestsSlowHeadersAndSlowBodiesAreCutOff) {
  HttpServer::Options deadline, slow;
  deadline.requestDeadline = 300ms;
  slow.headerDeadline = 300ms;
  slow.bodyGrace = 200ms;
  slow.minBodyBytesPerSecond = 2000;
  const struct {
    const HttpServer::Options& options;
    std::string first;    // sent at once
    std::size_t perTick;  // then this many bytes every 50 ms
    std::chrono::milliseconds within;
  } cases[] = {{deadline, "", 1, 1500ms},
               {slow, "POST /x HTTP/1.1\r\n", 0, 2s},
               {slow, "POST /x HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n", 20, 2s}};
  for (const auto& c : cases) {
    start(c.options);
    const int fd = connectFrom("127.0.0.1", server_->port());
    ASSERT_GE(fd, 0);
    ::send(fd, c.first.data(), c.first.size(), MSG_NOSIGNAL);
    const auto started = std::chrono::steady_clock::now();
    bool cut = false;
    while (!cut && std::chrono::steady_clock::now() - started < 5s) {
      const std::string chunk(c.perTick, 'x');
      cut = !chunk.empty() && ::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) < 0;
      char byte;
      cut = cut || ::recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
      std::this_thread::sleep_for(50ms);
    }
    ::close(fd);
    EXPECT_TRUE(cut) << c.first;
    EXPECT_LT(std::chrono::steady_clock::now() - started, c.within) << c.first;
  }
  // A body at a normal pace is served.
  const std::string body(50000, 'x');
  EXPECT_EQ(roundTrip(server_->port(),
                      "POST /x HTTP/1.1\r\nHost: x\r\nContent-Length: 50000\r\n\r\n" + body)
                .status,
            200);
  EXPECT_EQ(refusals(), (std::vector<int>{408, 408, 408}));
}

}  // namespace
}  // namespace qxlog
