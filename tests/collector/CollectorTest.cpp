// The collector against what the library sends, an independent encoder and every kind of bad
// input; the report and the legend; its HTTP front's connection limits and deadlines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

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

using namespace std::literals;
using namespace testing;
using namespace collector;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Counts = std::map<std::string, int64_t>;

// log_data as the library seals it, from a plain body text.
std::string seal(const std::string& plain, const std::string& key = kTestKey) {
  return support::base64Encode(*QXLogHelper::data_AES256(plain, key));
}
std::string sealJson(const std::string& json, const std::string& key = kTestKey) {
  return seal(*QXLogHelper::gzipDeflate(json), key);
}
std::string readAll(std::FILE* file) {
  std::rewind(file);
  return readToEnd(::fileno(file));
}
std::string requestWith(const std::string& target, const std::string& headers) {
  return "GET " + target + " HTTP/1.1\r\n" + headers + "\r\n";
}
std::string line(const std::string& name, const std::string& value) {
  return name + ": " + value + "\r\n";
}
constexpr std::size_t npos = std::string::npos;
std::string logForm(const std::string& logData, const std::string& token) {
  return "log_data=" + formEncode(logData) + "&token=" + formEncode(token);
}

TEST(CollectorCodecs, DayTokensAndEnvelopesRejectMalformedBase64BadBlocksAndExtraMembers) {
  ::setenv("TZ", "UTC0", 1);
  ::tzset();
  EXPECT_EQ(dayToken(2024, 3, 1), *QXLogHelper::md5String("2024-03-01Rk4TqzWmLpVhNc7XsJdBfYoE"s));
  auto at = [](std::time_t t) {
    return acceptedDayTokens(std::chrono::system_clock::from_time_t(t));
  };
  // Today and yesterday across a month's and a year's end.
  EXPECT_EQ(at(1709294400), (std::vector{dayToken(2024, 3, 1), dayToken(2024, 2, 29)}));
  EXPECT_EQ(at(1735689600), (std::vector{dayToken(2025, 1, 1), dayToken(2024, 12, 31)}));

  EXPECT_EQ(base64Decode("Zm9v\nYmFy\r\n").value, "foobar"s);
  for (const char* bad : {"Zm9", "Zm9vY", "=Zm9", "Zm==Zm9v", "Zm9v====", "Zm-v"}) {
    EXPECT_FALSE(base64Decode(bad)) << bad;
  }
  EXPECT_FALSE(decryptLogData(std::string(15, 'x'), "k"s));
  const std::string member = *QXLogHelper::gzipDeflate("body"s);
  EXPECT_EQ(gunzip(member).value, "body"s);
  EXPECT_FALSE(gunzip(member + member));
  EXPECT_FALSE(gunzip(member.substr(0, member.size() - 1)));
}

// A library under the test platform, whose log server is a real collector on
// 127.0.0.1 running on the same virtual clock, in UTC like the library.
class CollectorTest : public UploadTest {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    UploadTest::SetUp();
    start(kTestKey);
  }
  void TearDown() override {
    collector_.reset();
    UploadTest::TearDown();
    std::fclose(log_);
    std::fclose(out_);
  }
  void start(const std::string& key, const std::string& apiToken = "",
             const std::string& host = "127.0.0.1") {
    collector_.reset();
    LocalCollectorOptions options;
    options.host = host;
    options.apiToken = apiToken;
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
    collector_ = LocalCollector::start(options, error);
    ASSERT_TRUE(collector_) << error;
    port_ = collector_->port();
    format().setPushUrl(collector_->baseUrl() + "/settings");
    format().setPushLogUrl(collector_->baseUrl() + "/log");
    format().setPushDiagnosisUrl(collector_->baseUrl() + "/diagnosis");
  }

  std::string today() const { return *QXLogHelper::tokenString(std::nullopt); }
  HttpReply upload(const std::string& logData, const std::string& token = "") {
    return postForm(port_, "/log", logForm(logData, token.empty() ? today() : token));
  }
  HttpReply diagnose(const std::string& logData, const std::string& rest = "") {
    return postForm(port_, "/diagnosis",
                    "diagnosis_log=" + formEncode(logData) + "&token=" + today() + rest);
  }
  using Answers = std::vector<std::tuple<std::string, int, std::vector<std::string>>>;
  // Each target, asked with each value of `header` ("" for none) after the `first` lines, gets
  // its status, and a challenge to log in exactly when that is 401.
  void expectAnswers(const std::string& header, const std::string& first, const Answers& cases) {
    for (const auto& [target, status, values] : cases) {
      for (const std::string& value : values) {
        const std::string extra = value.empty() ? "" : line(header, value);
        const HttpReply reply = roundTrip(port_, requestWith(target, first + extra));
        EXPECT_EQ(reply.status, status) << target << " " << header << ": " << value;
        const bool challenged = reply.head.find("\r\nWWW-Authenticate: Basic realm=") != npos;
        EXPECT_EQ(challenged, status == 401) << target << " " << reply.head;
      }
    }
  }
  bool nothingStored() {
    CollectorStore& store = collector_->store();
    return store.delivered().uploads == 0 && store.records().empty() && store.diagnoses().empty();
  }

  std::unique_ptr<LocalCollector> collector_;
  std::string yesterday_;  // the other token the collector accepts
  int port_ = 0;
  std::FILE* log_ = std::tmpfile();
  std::FILE* out_ = std::tmpfile();
};

TEST_F(CollectorTest, StoresWhatTheLibraryUploadsAndConfirmsIt) {
  logEnvReady(true);
  recordLaunchLog("cold");
  settle();
  recordActionLog("tap", "3");
  settle();
  recordDiagnosLog("http://127.0.0.1/a.m3u8", "timeout", "1", "2", "3", "4", "0", "hd");
  settle();

  CollectorStore& store = collector_->store();
  const Delivered d = store.delivered("device-1");
  EXPECT_EQ(std::tuple(d.uploads, d.records, d.diagnoses),
            std::tuple(2, Counts{{"0", 1}, {"2", 1}}, 1));
  EXPECT_EQ(store.delivered("another device").uploads, 0);
  EXPECT_EQ(rows(store.records("2"s), &StoredRecord::name, &StoredRecord::body),
            R"(action {"a_t":"2","a_0":"1700000000000","a_1":"tap","a_2":"1700000000000",)"
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
  EXPECT_THAT(readAll(out_), AllOf(HasSubstr("upload #1"), HasSubstr("launch "),
                                   HasSubstr("action "), HasSubstr("diagnosis #1")));
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
  // The openssl command line, not the library; a short key is padded with zero bytes.
  const std::string plain = documentsPath("plain.json");
  std::ofstream(plain)
      << R"({"t":{"t_2":"other-device","t_12":"7"},"a":[{"a_t":"2","a_1":"ü tap"},{"a_t":"7"}]})";
  const Finished sealed = run("gzip -c '" + plain + "' | openssl enc -aes-128-ecb -nosalt -K " +
                              "73686f72740000000000000000000000 | base64 -w0");
  if (sealed.status != 0) GTEST_SKIP() << "no openssl: " << sealed.output;
  start("short");
  const HttpReply reply = upload(sealed.output);
  EXPECT_EQ(reply.status, 200) << reply.body;
  EXPECT_THAT(reply.head, HasSubstr("\r\nContent-Type: application/json\r\n"));
  EXPECT_EQ(reply.body, "{\"operate_code\":\"200\"}\n");
  EXPECT_EQ(rows(collector_->store().records(), &StoredRecord::name, &StoredRecord::body),
            R"(action {"a_t":"2","a_1":"ü tap"}; network {"a_t":"7"})");
  EXPECT_EQ(collector_->store().delivered("other-device").uploads, 1);
}

// Each refusal has its status and one line of reason, is logged on one line
// (a line feed in a path cannot start a log line of its own), stores nothing.
TEST_F(CollectorTest, RefusesEachBadInputWithAReasonAndStoresNothing) {
  const std::string good = sealJson(R"({"t":{},"a":[{"a_t":"2"}]})");
  std::string flood = "{\"t\":{},\"a\":[{}";
  for (int i = 0; i < 10000; ++i) flood += ",{}";
  const std::tuple<HttpReply, int, std::string> cases[] = {
      {postForm(port_, "/log", "token=" + today()), 400, "missing field log_data"},
      {postForm(port_, "/log", "log_data=" + formEncode(good)), 403, "missing field token"},
      {upload(good, dayToken(2001, 1, 1)), 403, "wrong token"},
      {upload("not*base64"), 400, "log_data: base64:"},
      {upload(sealJson("{\"t\":{},\"a\":[]}", "other")), 400, "log_data: "},
      {upload(seal("this is not a gzip member at all")), 400, "log_data: gzip:"},
      {upload(sealJson("{\"t\":")), 400, "log_data: json:"},
      {upload(sealJson("[1,2]")), 400, "log_data: the body is not"},
      {upload(sealJson(R"({"t":{},"a":[1]})")), 400, "log_data: a record is not an object"},
      {upload(std::string(70 << 10, 'A')), 413, "body too large"},
      {upload(sealJson(flood + "]}")), 413, "log_data: json: more than 10000 records"},
      {postForm(port_, "/diagnosis", "token=" + today()), 400, "missing field diagnosis_log"},
      {diagnose(sealJson("\"x\"")), 400, "diagnosis_log: the report is not an object"},
      {get(port_, "/log"), 405, "/log takes POST"},
      {get(port_, "/upload"), 404, "no such path"}};
  // A request line that is not HTTP is turned away by the server library
  // itself, before any handler: no answer of ours, nothing logged.
  EXPECT_NE(roundTrip(port_, "NONSENSE\r\n\r\n").status, 200);
  for (const auto& [reply, status, reason] : cases) {
    EXPECT_EQ(reply.status, status) << reason << ": " << reply.body;
    EXPECT_THAT(reply.body, StartsWith(reason));
    EXPECT_EQ(std::count(reply.body.begin(), reply.body.end(), '\n'), 1) << reason;
  }
  EXPECT_TRUE(nothingStored());
  std::string log = readAll(log_);
  EXPECT_EQ(static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n')), std::size(cases))
      << log;
  EXPECT_THAT(log, HasSubstr("413 POST /log from 127.0.0.1:"));
  roundTrip(port_, "GET /x\nqxlog-collector: forged HTTP/1.1\r\n\r\n");
  roundTrip(port_, "GET /y\rqxlog-collector: forged HTTP/1.1\r\n\r\n");
  log = readAll(log_);
  EXPECT_THAT(log, Not(HasSubstr("\nqxlog-collector: forged")));
  EXPECT_THAT(log, Not(HasSubstr("\rqxlog-collector:")));
  // The server still serves, yesterday's token too.
  EXPECT_EQ(upload(good, yesterday_).status, 200);
  EXPECT_EQ(collector_->store().delivered().uploads, 1);
}

TEST_F(CollectorTest, AConfiguredRefusalStoresNothing) {
  CollectorOptions options;
  options.key = kTestKey;
  options.answerCode = "500";
  HttpServerRequest request;
  request.method = "POST";
  request.path = "/log";
  request.params = {{"log_data", sealJson(R"({"t":{},"a":[]})")},
                    {"token", acceptedDayTokens(options.clock())[0]}};
  HttpServerAnswer answer = Collector(options, collector_->store()).handle(request);
  EXPECT_EQ(std::tuple(answer.status, answer.body),
            std::tuple(200, "{\"operate_code\":\"500\"}\n"));
  options.answerCode = "200";
  options.answerStatus = 503;
  EXPECT_EQ(Collector(options, collector_->store()).handle(request).status, 503);
  EXPECT_TRUE(nothingStored());
}

TEST(CollectorReport, PrintsTheHeaderOnceAndEachRecordByName) {
  UploadRow upload;
  upload.peer = "127.0.0.1:1";
  upload.header = strings({{"t_2", "dev"}});
  Dictionary film = strings({{"a_t", "1"}, {"a_7", "42"}});
  film.set("p", Value(Array{Value(strings({{"p_2", "5"}})), Value(Dictionary())}));
  upload.records = {Value(strings({{"a_t", "0"}})), Value(film)};
  EXPECT_EQ(describeUpload(3, upload),
            "upload #3 from 127.0.0.1:1: 2 records\n"
            "  header           {\"t_2\":\"dev\"}\n"
            "  launch           {\"a_t\":\"0\"}\n"
            "  film play        {\"a_t\":\"1\",\"a_7\":\"42\"}\n"
            "    play action      {\"p_2\":\"5\"}\n"
            "    play action      {} (a repeated buffering report, dropped)\n");
  EXPECT_EQ(prettyJson(Value(strings({{"b", "1"}, {"a", "2"}}))),
            "{\n  \"b\": \"1\",\n  \"a\": \"2\"\n}");
}

// The shape check walks the bytes once: brackets and quotes inside strings
// are not structure, each limit holds at its value and fails one past it.
TEST(JsonShape, CountsStructureOutsideStringsAndStopsOnePastEachLimit) {
  JsonShapeLimits small;
  small.maxDepth = small.maxElements = 3;
  small.maxStringBytes = 4;
  small.maxValues = 9;
  JsonShapeLimits uploads = small;
  uploads.maxRecords = 5;
  const std::string wide = "an array or object of more than 3 elements";
  // The limits, the first limit passed ("" for none), and texts that pass it.
  const std::tuple<const JsonShapeLimits&, std::string, std::vector<const char*>> cases[] = {
      {small, "", {R"([[[1]]])", R"(["[[[[", "\"{{"])", R"([1,2,3])", R"(["abcd"])"}},
      {small, "", {R"({"a":1,"b":[],"c":{}})", R"([[1,2,3],[1,2,3]])"}},
      {small, "nested deeper than 3 levels", {R"([[[[1]]]])"}},
      {small, wide, {R"([1,2,3,4])", R"({"a":1,"b":2,"c":3,"d":4})"}},
      {small, "a string of more than 4 bytes", {R"(["abcde"])", R"({"abcde":1})"}},
      {small, "more than 9 values", {R"([[1,2,3],[1,2,3],1])"}},
      {uploads, "", {R"({"a":[{},{},{},{},{}]})"}},
      {uploads, "more than 5 records", {R"({"a":[{},{},{},{},{},{}]})"}},
      {uploads, wide, {R"({"t":"a","x":[1,2,3,4]})", R"({"t":{"a":[1,2,3,4]}})"}},
      {uploads, wide, {R"([{"a":[1,2,3,4]}])"}}};
  for (const auto& [limits, reason, texts] : cases) {
    for (const char* json : texts) EXPECT_EQ(checkJsonShape(json, limits), reason) << json;
  }
}

// Every oversized structure, on both decoding endpoints: refused with 413 and
// the limit it passed, nothing stored. Small on the wire, large once inflated.
TEST_F(CollectorTest, OversizedStructuresAreRefusedOnLogAndDiagnosisAlike) {
  auto repeat = [](const std::string& part, std::size_t times) {
    std::string out;
    for (std::size_t i = 0; i < times; ++i) out += part;
    return out;
  };
  auto body = [](const std::string& record) { return "{\"t\":{},\"a\":[" + record + "]}"; };
  const std::string wide = "json: an array or object of more than 10000 elements";
  const std::pair<std::string, std::string> cases[] = {
      {body(repeat("[", 40) + repeat("]", 40)), "json: nested deeper than 32 levels"},
      {body("{\"x\":[0" + repeat(",0", 4 << 20) + "]}"), wide},
      {body("{" + repeat("\"k\":0,", 10001) + "\"k\":0}"), wide},
      {body("{\"x\":\"" + std::string((1 << 20) + 1, 'x') + "\"}"),
       "json: a string of more than 1048576 bytes"},
      {body(repeat("[0" + repeat(",0", 8999) + "],", 60) + "[]"), "json: more than 500000 values"},
      {body("\"" + std::string(17 << 20, '0') + "\""), "gzip: inflates past 16777216 bytes"}};
  for (const auto& [json, reason] : cases) {
    const std::string sealed = sealJson(json);
    ASSERT_LT(sealed.size(), 48u << 10) << reason;
    for (const auto& [reply, field] :
         {std::pair(upload(sealed), "log_data"), std::pair(diagnose(sealed), "diagnosis_log")}) {
      EXPECT_EQ(std::tuple(reply.status, reply.body),
                std::tuple(413, field + ": "s + reason + "\n"));
    }
  }
  EXPECT_TRUE(nothingStored());
}

TEST_F(CollectorTest, TheApiTokenGuardsWhatWasStoredAndDevicesStayOpen) {
  start(kTestKey, "s3cret-token");
  const std::string host = line("Host", "collector.example"), summary = "/api/summary";
  auto basic = [](const std::string& pair) { return "Basic " + support::base64Encode(pair); };
  expectAnswers("Authorization", host,
                {{summary, 200, {"Bearer s3cret-token", "bearer  s3cret-token "}},
                 {summary, 200, {basic("anyone:s3cret-token")}},
                 {summary, 401, {"", "Bearer s3cret-toke", "Bearer s3cret-tokenx", "Bearer "}},
                 {summary, 401, {"s3cret-token", basic("s3cret-token:"), basic("s3cret-token")}},
                 {"/", 401, {""}},
                 {"/", 200, {basic(":s3cret-token")}},
                 {"/received", 401, {""}},
                 {"/received", 200, {"Bearer s3cret-token"}},
                 {"/no-such-path", 401, {""}},
                 {"/settings?token=" + today() + "&uid=d", 200, {""}},
                 {"/log", 405, {""}}});
  // A login to the page sets a session cookie that the page's requests carry.
  const HttpReply login = roundTrip(
      port_, requestWith("/", host + line("Authorization", basic("viewer:s3cret-token"))));
  const std::size_t at = login.head.find("\r\nSet-Cookie: qxlog_session=");
  ASSERT_NE(at, std::string::npos) << login.head;
  const std::string session = login.head.substr(at + 14, login.head.find(';', at) - at - 14);
  EXPECT_THAT(login.head, Not(HasSubstr("s3cret-token")));
  EXPECT_THAT(login.head, HasSubstr("HttpOnly; SameSite=Strict"));
  expectAnswers(
      "Cookie", host,
      {{summary, 200, {"a=1; " + session}}, {summary, 401, {session + "0", "qxlog_session="}}});
}

TEST_F(CollectorTest, WithoutAnApiTokenOnlyLoopbackAndItsOwnHostNamesAreAnswered) {
  LocalCollectorOptions anywhere;
  anywhere.host = "0.0.0.0";
  anywhere.database = "/nonexistent/never-opened.db";
  std::string error;
  EXPECT_FALSE(LocalCollector::start(anywhere, error));
  EXPECT_THAT(error, HasSubstr("refusing to listen on 0.0.0.0 without an API token"));
  const std::string own = ":" + std::to_string(port_);
  const std::string settings = "/settings?token=" + today() + "&uid=d";
  expectAnswers(
      "Host", "",
      {{"/received", 200, {"127.0.0.1" + own, "localhost" + own, "LocalHost" + own}},
       {"/received", 200, {"[::1]" + own, ""}},
       {"/api/summary", 200, {"localhost" + own}},
       {"/received", 403, {"rebound.example" + own, "127.0.0.1", "127.0.0.1:1", "127.0.0.2" + own}},
       {"/", 403, {"rebound.example" + own}},
       // Device paths answer under any name: a proxy in front forwards its own.
       {settings, 200, {"rebound.example" + own, "127.0.0.1" + own}}});
  start(kTestKey, "token", "0.0.0.0");  // with a token it listens anywhere
}

TEST_F(CollectorTest, ALongStoredRecordIsServedCutWithItsLength) {
  start(kTestKey, "t");
  const std::string body = R"({"t":{},"a":[{"a_t":"2","a_1":")" + std::string(100000, 'x') +
                           R"("},{"a_t":"2","a_1":"short"}]})";
  ASSERT_EQ(upload(sealJson(body)).status, 200);
  const HttpReply records =
      roundTrip(port_, requestWith("/api/records", line("Authorization", "Bearer t")));
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
  const std::string sealed = sealJson(R"({"t":{"t_2":"d"},"a":[{"a_t":"2","a_1":"x"}]})");
  for (int i = 0; i < 3; ++i) {
    const HttpReply reply = upload(sealed);
    EXPECT_EQ(std::tuple(reply.status, reply.body),
              std::tuple(200, "{\"operate_code\":\"200\"}\n"));
  }
  const Delivered delivered = collector_->store().delivered();
  EXPECT_EQ(std::tuple(delivered.uploads, delivered.replays), std::tuple(1, 2));
  EXPECT_EQ(collector_->store().records().size(), 1u);
  EXPECT_THAT(get(port_, "/received").body, HasSubstr("\"replays\":2"));
  // Another day's token makes it another upload.
  EXPECT_EQ(upload(sealJson(R"({"t":{},"a":[]})"), yesterday_).status, 200);
  EXPECT_EQ(collector_->store().delivered().uploads, 2);
}

TEST_F(CollectorTest, FieldsThatAreNotUtf8AreStoredAndPrintedAsValidUtf8) {
  EXPECT_EQ(
      diagnose(sealJson(R"({"play_info":{}})"), "&user_id=a%FFb&uid=dev%C3&user_phone=1").status,
      200);
  const auto diagnoses = collector_->store().diagnoses();
  ASSERT_EQ(diagnoses.size(), 1u);
  EXPECT_THAT(diagnoses[0], HasSubstr("a\xEF\xBF\xBD"
                                      "b"));
  EXPECT_EQ(serial::validUtf8(diagnoses[0]), diagnoses[0]);
  EXPECT_EQ(printable("a\nb\x01\xff"), "a\\nb\\x01\xEF\xBF\xBD");
}

// The field legend against the records the library really builds: every key
// of every record family, of the play actions, of the header and of an
// end-of-play summary has a meaning, so the legend cannot fall behind.
void expectEveryKeyExplained(LegendTable table, const Dictionary& record) {
  for (const auto& [key, value] : record) {
    EXPECT_FALSE(meaningOf(table, key).empty())
        << "no meaning for " << key << " in table " << static_cast<int>(table);
  }
}

class LegendTest : public LibraryTest {};

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
    EXPECT_EQ(legendTableOf(record), expected[i]) << i;
    expectEveryKeyExplained(expected[i], record);
  }
  const Value* actions = records.back().asDictionary()->find("p");
  ASSERT_TRUE(actions != nullptr && actions->asArray() != nullptr);
  expectEveryKeyExplained(LegendTable::kPlayAction, *(*actions->asArray())[0].asDictionary());
  expectEveryKeyExplained(LegendTable::kHeader, center.format().publicLog());

  EXPECT_FALSE(meaningOf(LegendTable::kPlay, format::kPlayIdKey).empty());
  for (const char* key : {format::kFromHeightKey, format::kToHeightKey, format::kBitrateKey}) {
    EXPECT_FALSE(meaningOf(LegendTable::kPlayAction, key).empty()) << key;
  }
  format::PlayTimeline timeline(1000);
  timeline.end(2000, 0);
  format::PlayDescription play;
  play.playId = "0123456789abcdef0123456789abcdef";
  play.movieId = "film-1";
  Dictionary report = format::playSummaryReport(play, timeline, "", 2000);
  const Dictionary* summary = report.find("play_summary")->asDictionary();
  ASSERT_NE(summary, nullptr);
  EXPECT_GE(summary->size(), 17u);
  expectEveryKeyExplained(LegendTable::kPlaySummary, *summary);
  EXPECT_THAT(explainPlaySummary(Value(report), "  "), HasSubstr("  play summary\n    play_id"));
}

TEST(LegendTextTest, ExplainsValuesBesideTheirMeaningAndListsEveryTable) {
  Dictionary download = strings({{"a_t", "3"}, {"a_13", "2048.00"}, {"zz", "odd"}});
  EXPECT_EQ(explainRecord(download, "  "),
            "  a_t   3   # record type: 3 download\n"
            "  a_13  2048.00   # average rate since the start, KB/s\n"
            "  zz    odd\n");
  for (const char* title :
       {"header", "launch record", "action record", "network record", "download record",
        "play header", "play action", "end-of-play summary"}) {
    EXPECT_THAT(legendText(), HasSubstr(title));
  }
}

// A server answering "pong" whose refusals are recorded; its connections are
// counted on its own threads.
class HttpServerTest : public ::testing::Test {
 protected:
  void start(HttpServer::Options options, std::size_t all = 64, std::size_t perClient = 16) {
    options.maxConnections = all;
    options.maxConnectionsPerClient = perClient;
    options.refused = [this](const HttpServerRequest&, int status, const std::string&) {
      std::lock_guard lock(mutex_);
      refusals_.push_back(status);
    };
    server_ = std::make_unique<HttpServer>(options, [](const HttpServerRequest&) {
      return HttpServerAnswer{200, "text/plain", "pong\n"};
    });
    ASSERT_TRUE(server_->start()) << server_->error();
  }
  std::vector<int> refusals() {
    std::lock_guard lock(mutex_);
    return refusals_;
  }
  // The status of the answer to a whole GET sent from `from`, 0 for none.
  int statusOf(const char* from) {
    return roundTrip(server_->port(), "GET /ping HTTP/1.1\r\nHost: x\r\n\r\n", from).status;
  }
  // Waits up to two seconds until the server holds `count` connections: a
  // probe counted beside a held connection would change which one is over a limit.
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
  start({}, 4, 2);
  const int port = server_->port();
  std::vector<int> held = {connectFrom("127.0.0.1", port), connectFrom("127.0.0.1", port)};
  awaitOpen(2);
  EXPECT_EQ(statusOf("127.0.0.1"), 503);  // a third from the same address
  EXPECT_EQ(statusOf("127.0.0.2"), 200);  // another address is served
  awaitOpen(2);                           // the probes' places are free again
  held.push_back(connectFrom("127.0.0.3", port));
  held.push_back(connectFrom("127.0.0.4", port));
  awaitOpen(4);
  EXPECT_EQ(statusOf("127.0.0.5"), 503);  // four open in all
  // A connection over the limit that sends nothing is closed after its grace.
  int idle = connectFrom("127.0.0.1", port);
  EXPECT_EQ(readToEnd(idle), "");
  ::close(idle);
  for (int fd : held) ::close(fd);
  awaitOpen(0);
  EXPECT_EQ(statusOf("127.0.0.1"), 200);  // served again once they are gone
  EXPECT_EQ(refusals(), (std::vector<int>{503, 503, 503}));
}

// A few addresses that each fill their own limit leave the last quarter of
// the places to addresses that hold none.
TEST_F(HttpServerTest, PlacesAreKeptForAddressesThatHoldNone) {
  start({}, 8, 4);  // two kept
  std::vector<int> held;
  for (const char* from :
       {"127.0.0.2", "127.0.0.2", "127.0.0.2", "127.0.0.2", "127.0.0.3", "127.0.0.3"}) {
    held.push_back(connectFrom(from, server_->port()));
  }
  awaitOpen(6);
  EXPECT_EQ(statusOf("127.0.0.3"), 503);  // under its own limit, but the rest is kept
  awaitOpen(6);
  EXPECT_EQ(statusOf("127.0.0.4"), 200);  // a new address takes a kept place
  for (int fd : held) ::close(fd);
}

// Cut off with a 408: a request trickling past the whole request's deadline
// (one byte every 50 ms keeps a per-read timeout from firing), and long before
// it, headers that do not end in time and a body slower than the minimum rate.
TEST_F(HttpServerTest, TricklingRequestsSlowHeadersAndSlowBodiesAreCutOff) {
  HttpServer::Options deadline, slow;
  deadline.requestDeadline = 300ms;
  slow.headerDeadline = 300ms;
  slow.bodyGrace = 200ms;
  slow.minBodyBytesPerSecond = 2000;
  // The options; bytes sent at once, then this many every 50 ms; cut off within.
  const std::tuple<const HttpServer::Options&, std::string, std::size_t, std::chrono::milliseconds>
      cases[] = {{deadline, "", 1, 1500ms},
                 {slow, "POST /x HTTP/1.1\r\n", 0, 2s},
                 {slow, "POST /x HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n", 20, 2s}};
  for (const auto& [options, first, perTick, within] : cases) {
    start(options);
    const int fd = connectFrom("127.0.0.1", server_->port());
    ASSERT_GE(fd, 0);
    ::send(fd, first.data(), first.size(), MSG_NOSIGNAL);
    const auto started = std::chrono::steady_clock::now();
    bool cut = false;
    while (!cut && std::chrono::steady_clock::now() - started < 5s) {
      const std::string chunk(perTick, 'x');
      cut = !chunk.empty() && ::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) < 0;
      char byte;
      cut = cut || ::recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
      std::this_thread::sleep_for(50ms);
    }
    ::close(fd);
    EXPECT_TRUE(cut) << first;
    EXPECT_LT(std::chrono::steady_clock::now() - started, within) << first;
  }
  // A body at a normal pace is served.
  EXPECT_EQ(
      roundTrip(server_->port(), "POST /x HTTP/1.1\r\nHost: x\r\nContent-Length: 50000\r\n\r\n" +
                                     std::string(50000, 'x'))
          .status,
      200);
  EXPECT_EQ(refusals(), (std::vector<int>{408, 408, 408}));
}

}  // namespace
}  // namespace qxlog
