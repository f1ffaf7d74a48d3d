// qxlog-decode, qxlog-collector, qxlog-demo and the example C host, as separate processes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/serial/Json.h"
#include "collector/server/LocalCollector.h"
#include "tests/support/HttpClient.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

using namespace std::string_literals;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kDecode = QXLOG_TEST_DECODE;

class ToolsTest : public LibraryTest {};

TEST_F(ToolsTest, DecodeReadsAnEnvelopeTheLibraryBuilt) {
  QXLogMessageFormat& format = QXLogCenter::center().format();
  format.setLogEncryptionKey("0123456789abcdef"s);
  const Array records{Value(format.actionLog("home.open"s, "1700000000000"s, "7"s))};
  const Dictionary envelope = format.combinationLog(&records);
  const std::string logData = *envelope.find("log_data")->asString();
  const std::string plain = *envelope.find("log_data_str")->asString();
  const std::string decode = kDecode + " --key 0123456789abcdef ";

  Finished compact = run(decode + "--compact '" + logData + "'");
  EXPECT_EQ(compact.status, 0) << compact.output;
  EXPECT_EQ(compact.output, plain + "\n");
  // A whole form body on standard input.
  const std::string form = "token=x&log_data=" + formEncode(logData);
  EXPECT_EQ(run("printf %s '" + form + "' | " + decode + "--compact").output, plain + "\n");
  Finished pretty = run(decode + "'" + logData + "'");
  EXPECT_THAT(pretty.output, HasSubstr("\n  \"t\": {\n"));
  EXPECT_EQ(serial::parseJson(pretty.output), serial::parseJson(plain));
}

TEST_F(ToolsTest, DecodeFailsClearlyOnBadInput) {
  const std::pair<const char*, const char*> cases[] = {
      {"--key k '***'", "qxlog-decode: base64:"},
      {"--key k Zm9vYmFy", "qxlog-decode: aes:"},
      {"--key k ' '", "qxlog-decode: nothing to decode"},
      {"--records /nonexistent/collector.db", "no such database"},
      {"--records x.db --type films", "unknown record type: films"},
      {"--frobnicate", "unexpected argument"}};
  for (const auto& [arguments, message] : cases) {
    Finished result = run(kDecode + " " + arguments + " </dev/null");
    EXPECT_NE(result.status, 0) << arguments;
    EXPECT_THAT(result.output, HasSubstr(message)) << arguments;
  }
}

TEST_F(ToolsTest, DecodePrintsADatabasesRecordsByType) {
  const std::string database = documentsPath("collector.db");
  {
    std::string error;
    auto store = collector::CollectorStore::open(database, error);
    ASSERT_TRUE(store) << error;
    collector::UploadRow upload;
    Dictionary film = strings({{"a_t", "1"}, {"a_7", "film-42"}});
    film.set("p", Value(Array{Value(strings({{"p_2", "5"}}))}));
    upload.records = {Value(strings({{"a_t", "2"}, {"a_1", "home.open"}})), Value(film)};
    collector::DiagnosisRow diagnosis;
    diagnosis.device = "device-9";
    diagnosis.report = Value(strings({{"k", "v"}}));
    ASSERT_TRUE(store->addUpload(upload, error) && store->addDiagnosis(diagnosis, error)) << error;
  }
  const std::string records = kDecode + " --records '" + database + "' ";
  // The type, then texts printed and texts not printed.
  const std::tuple<std::string, std::vector<const char*>, std::vector<const char*>> cases[] = {
      {"action", {"action", "home.open"}, {"film-42", "device-9"}},
      {"film", {"film play", "play action", "film-42"}, {"home.open"}}};
  for (const auto& [type, shown, hidden] : cases) {
    Finished printed = run(records + "--type " + type);
    EXPECT_EQ(printed.status, 0) << printed.output;
    for (const char* text : shown) EXPECT_THAT(printed.output, HasSubstr(text));
    for (const char* text : hidden) EXPECT_THAT(printed.output, Not(HasSubstr(text)));
  }
  Finished everything = run(records + "--json");
  std::size_t lines = 0;
  for (std::size_t start = 0, end; (end = everything.output.find('\n', start)) != std::string::npos;
       start = end + 1, ++lines) {
    EXPECT_TRUE(serial::parseJson(everything.output.substr(start, end - start)));
  }
  EXPECT_EQ(lines, 3u) << everything.output;  // two records and a diagnosis
}

TEST_F(ToolsTest, CollectorServesAndStopsCleanlyOnSigintAndSigterm) {
  // Starts the collector, asks the port its first line names, signals it.
  const std::string script = documentsPath("serve.sh");
  std::ofstream(script) << R"("$1" --listen 127.0.0.1:0 --db "$2" --quiet 2>"$2.err" & pid=$!
for i in $(seq 200); do port=$(grep -o '127\.0\.0\.1:[0-9]*,' "$2.err") && break; sleep 0.05; done
port=${port%,}; exec 3<>/dev/tcp/127.0.0.1/${port#*:}
printf 'GET /received?uid=nobody HTTP/1.1\r\n\r\n' >&3 && cat <&3
kill -$3 $pid; wait $pid; echo "exit $?"; cat "$2.err")";
  for (const std::string signal : {"TERM", "INT"}) {
    const std::string database = documentsPath("collector-" + signal + ".db");
    const Finished served =
        run("bash " + script + " " + QXLOG_TEST_COLLECTOR + " " + database + " " + signal);
    for (const char* text :
         {"HTTP/1.1 200 OK",
          "{\"uploads\":0,\"records\":{},\"play_actions\":{},\"diagnoses\":0,\"settings\":0}\n",
          "exit 0\n", "qxlog-collector: stopped"}) {
      EXPECT_THAT(served.output, HasSubstr(text)) << signal;
    }
    EXPECT_TRUE(std::filesystem::exists(database));
  }
}

// The demo reports to an HTTPS collector whose certificate comes from a CA made here, trusted
// through SSL_CERT_FILE only; the demo reads /received with the API token from a file.
TEST_F(ToolsTest, TheDemoReportsOverHttpsToACollectorItsCaBundleTrusts) {
  const std::string dir = documentsPath("tls");
  std::filesystem::create_directories(dir);
  const std::string script = dir + "/https.sh";
  std::ofstream(script) << R"(set -e; cd "$1"
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }
key ca.key && key server.key
openssl req -x509 -new -key ca.key -subj /CN=qxlog-test-ca -days 2 -out ca.pem
openssl req -new -key server.key -subj /CN=127.0.0.1 -out server.csr
printf 'subjectAltName=IP:127.0.0.1\nbasicConstraints=CA:FALSE\n' >ext
printf 't0ken\n' >token
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 \
  -extfile ext -out server.pem 2>/dev/null
"$2" --listen 127.0.0.1:0 --db collector.db --key demo-key-0123456 --push-interval-time 1000 \
  --api-token-file token --tls-cert server.pem --tls-key server.key --quiet 2>collector.err \
  >/dev/null & pid=$!
trap 'kill $pid 2>/dev/null' EXIT
for i in $(seq 200); do
  url=$(grep -om1 'https://127\.0\.0\.1:[0-9]*' collector.err) && break; sleep 0.05
done
echo "untrusted:"
env -u SSL_CERT_FILE -u CURL_CA_BUNDLE "$3" --quiet --timeout 3 --api-token t0ken \
  --server "$url" 2>&1 | tail -1 || true
echo "trusted:"; SSL_CERT_FILE=ca.pem "$3" --quiet --timeout 30 --api-token t0ken --server "$url"
kill $pid; wait $pid; trap - EXIT)";
  if (run("openssl version").status != 0) GTEST_SKIP() << "no openssl command";
  const Finished https = run("bash " + script + " " + dir + " " + QXLOG_TEST_COLLECTOR + " " +
                             QXLOG_TEST_DEMO + " 2>&1");
  EXPECT_EQ(https.status, 0) << https.output;
  const std::size_t trusted = https.output.find("trusted:\n", https.output.find("untrusted:") + 3);
  ASSERT_NE(trusted, std::string::npos) << https.output;
  EXPECT_EQ(https.output.find("everything arrived"),
            https.output.find("everything arrived", trusted))
      << https.output;
  EXPECT_THAT(https.output.substr(trusted), HasSubstr("everything arrived"));
}

TEST_F(ToolsTest, EverythingTheDemoReportsArrivesInTheDatabase) {
  const std::string database = documentsPath("demo.db");
  Finished demo =
      run(std::string(QXLOG_TEST_DEMO) + " --quiet --timeout 30 --db '" + database + "'");
  ASSERT_EQ(demo.status, 0) << demo.output;
  EXPECT_THAT(demo.output, HasSubstr("everything arrived"));
  std::string error;
  auto store = collector::CollectorStore::open(database, error);
  ASSERT_TRUE(store) << error;
  const collector::Delivered delivered = store->delivered();
  // Launch, three actions, a download and a network report; each play at
  // least once (its actions may be folded under several copies of it).
  for (const auto& [type, count] :
       std::map<std::string, int64_t>{{"0", 1}, {"2", 3}, {"3", 1}, {"7", 1}}) {
    EXPECT_EQ(delivered.records.count(type) ? delivered.records.at(type) : 0, count) << type;
  }
  for (const char* play : {"1", "5", "6"}) EXPECT_GE(delivered.records.count(play), 1u) << play;
  EXPECT_EQ(delivered.playActions, (std::map<std::string, int64_t>{{"1", 3}, {"5", 1}, {"6", 2}}));
  EXPECT_EQ(delivered.diagnoses, 1);
}

TEST_F(ToolsTest, TheExampleCHostReportsToACollectorAndTracesUnlessTheConsoleIsOff) {
  collector::LocalCollectorOptions options;
  options.database = documentsPath("collector.db");
  options.collector.key = "demo-key-0123456";
  options.output = collector::Output::kQuiet;
  std::string error;
  auto collector = collector::LocalCollector::start(options, error);
  ASSERT_TRUE(collector) << error;
  const std::string host = std::string(QXLOG_TEST_EXAMPLE_C_HOST) + " '" + documentsPath("");
  Finished loud = run(host + "loud' " + collector->baseUrl());
  EXPECT_EQ(loud.status, 0) << loud.output;
  EXPECT_THAT(loud.output, HasSubstr("] Ostra->LogContent:"));
  EXPECT_EQ(collector->store().delivered("c-host-device").records,
            (std::map<std::string, int64_t>{{"0", 1}, {"2", 1}}));
  // The console off by the environment.
  Finished quiet = run("QXLOG_CONSOLE=off " + host + "quiet'");
  EXPECT_EQ(std::tuple(quiet.status, quiet.output), std::tuple(0, ""));
}

}  // namespace
}  // namespace qxlog::testing
