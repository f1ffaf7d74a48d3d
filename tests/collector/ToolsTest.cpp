// The programs themselves: qxlog-decode, qxlog-collector, qxlog-demo and the
// example C host, run as separate processes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Json.h"
#include "collector/server/LocalCollector.h"
#include "tests/support/TestPlatform.h"

namespace qxlog {
namespace {

using namespace std::string_literals;

struct Finished {
  int status = -1;  // the exit status, or -1 when the process did not exit
  std::string output;
};

// Runs a shell command, with its standard error joined to its output.
Finished run(const std::string& command) {
  Finished result;
  std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return result;
  char chunk[4096];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) result.output.append(chunk, got);
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

std::string shellQuoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? "'\\''"s : std::string(1, c);
  return out + "'";
}

class ScratchDirectory {
 public:
  ScratchDirectory() {
    char pattern[] = "/tmp/qxlog-tools-test-XXXXXX";
    if (::mkdtemp(pattern) != nullptr) path_ = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

const std::string kDecode = QXLOG_TEST_DECODE;

class DecodeToolTest : public testing::LibraryTest {};

TEST_F(DecodeToolTest, DecodesAnEnvelopeTheLibraryBuilt) {
  QXLogMessageFormat& format = QXLogCenter::center().format();
  format.setLogEncryptionKey("0123456789abcdef"s);
  format.setUid("42"s);
  const Array records{Value(format.actionLog("home.open"s, "1700000000000"s, "7"s))};
  const Dictionary envelope = format.combinationLog(&records);
  const std::string logData = *envelope.find("log_data")->asString();
  const std::string plain = *envelope.find("log_data_str")->asString();

  Finished compact = run(kDecode + " --key 0123456789abcdef --compact " + shellQuoted(logData));
  EXPECT_EQ(compact.status, 0) << compact.output;
  EXPECT_EQ(compact.output, plain + "\n");

  // A whole form body on standard input, "+" and "/" percent-encoded.
  std::string form = "token=x&log_data=";
  for (char c : logData)
    form += c == '+' ? "%2B"s : c == '/' ? "%2F"s : c == '=' ? "%3D"s : std::string(1, c);
  Finished fromStdin =
      run("printf %s " + shellQuoted(form) + " | " + kDecode + " --key 0123456789abcdef --compact");
  EXPECT_EQ(fromStdin.status, 0) << fromStdin.output;
  EXPECT_EQ(fromStdin.output, plain + "\n");

  Finished pretty = run(kDecode + " --key 0123456789abcdef " + shellQuoted(logData));
  EXPECT_EQ(pretty.status, 0) << pretty.output;
  EXPECT_NE(pretty.output.find("\n  \"t\": {\n"), std::string::npos) << pretty.output;
  EXPECT_EQ(platform::parseJson(pretty.output), platform::parseJson(plain));
}

TEST(DecodeTool, FailsClearlyOnBadInput) {
  const struct {
    std::string arguments;
    const char* message;
  } cases[] = {
      {"--key k '***'", "qxlog-decode: base64:"},
      {"--key k Zm9vYmFy", "qxlog-decode: aes:"},
      {"--key k ' '", "qxlog-decode: nothing to decode"},
      {"--records /nonexistent/collector.db", "no such database"},
      {"--records x.db --type films", "unknown record type: films"},
      {"--frobnicate", "unexpected argument"},
  };
  for (const auto& c : cases) {
    Finished result = run(kDecode + " " + c.arguments + " </dev/null");
    EXPECT_NE(result.status, 0) << c.arguments;
    EXPECT_NE(result.output.find(c.message), std::string::npos)
        << c.arguments << ": " << result.output;
  }
}

TEST(DecodeTool, PrintsADatabasesRecordsByType) {
  ScratchDirectory scratch;
  const std::string database = scratch / "collector.db";
  {
    std::string error;
    auto store = collector::CollectorStore::open(database, error);
    ASSERT_TRUE(store) << error;
    collector::UploadRow upload;
    Dictionary film = makeStringDictionary({{"a_t", "1"}, {"a_7", "film-42"}});
    film.set("p", Value(Array{Value(makeStringDictionary({{"p_2", "5"}}))}));
    upload.records = {Value(makeStringDictionary({{"a_t", "2"}, {"a_1", "home.open"}})),
                      Value(film)};
    ASSERT_TRUE(store->addUpload(upload, error)) << error;
    collector::DiagnosisRow diagnosis;
    diagnosis.device = "device-9";
    diagnosis.report = Value(makeStringDictionary({{"k", "v"}}));
    ASSERT_TRUE(store->addDiagnosis(diagnosis, error)) << error;
  }
  Finished actions = run(kDecode + " --records " + shellQuoted(database) + " --type action");
  EXPECT_EQ(actions.status, 0) << actions.output;
  EXPECT_NE(actions.output.find("action"), std::string::npos) << actions.output;
  EXPECT_NE(actions.output.find("home.open"), std::string::npos) << actions.output;
  EXPECT_EQ(actions.output.find("film-42"), std::string::npos) << actions.output;
  EXPECT_EQ(actions.output.find("device-9"), std::string::npos) << actions.output;

  Finished films = run(kDecode + " --records " + shellQuoted(database) + " --type film");
  EXPECT_NE(films.output.find("film play"), std::string::npos) << films.output;
  EXPECT_NE(films.output.find("play action"), std::string::npos) << films.output;
  EXPECT_EQ(films.output.find("home.open"), std::string::npos) << films.output;

  Finished everything = run(kDecode + " --records " + shellQuoted(database) + " --json");
  EXPECT_EQ(everything.status, 0);
  std::size_t lines = 0;
  std::size_t start = 0;
  for (std::size_t end; (end = everything.output.find('\n', start)) != std::string::npos;
       start = end + 1, ++lines) {
    EXPECT_TRUE(platform::parseJson(everything.output.substr(start, end - start)))
        << everything.output;
  }
  EXPECT_EQ(lines, 3u) << everything.output;  // two records and a diagnosis
}

// Starts qxlog-collector on a free port and returns its pid; the port comes
// from its first line on standard error.
pid_t startCollector(const std::string& database, int& port, int& stderrRead) {
  int pipeFds[2];
  if (::pipe(pipeFds) != 0) return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(pipeFds[1], STDERR_FILENO);
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    ::execl(QXLOG_TEST_COLLECTOR, "qxlog-collector", "--listen", "127.0.0.1:0", "--db",
            database.c_str(), "--quiet", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(pipeFds[1]);
  stderrRead = pipeFds[0];
  std::string line;
  char c;
  while (::read(stderrRead, &c, 1) == 1 && c != '\n') line += c;
  const std::size_t at = line.find("http://127.0.0.1:");
  port = at == std::string::npos ? 0 : std::atoi(line.c_str() + at + 17);
  return pid;
}

TEST(CollectorProcess, ServesAndStopsCleanlyOnSigintAndSigterm) {
  for (int signal : {SIGTERM, SIGINT}) {
    ScratchDirectory scratch;
    int port = 0;
    int errors = -1;
    const pid_t pid = startCollector(scratch / "collector.db", port, errors);
    ASSERT_GT(pid, 0);
    ASSERT_GT(port, 0) << "no listening line";
    Finished received =
        run("bash -c 'exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port) +
            " && printf \"GET /received?uid=nobody HTTP/1.1\\r\\n\\r\\n\" >&3 && cat <&3'");
    EXPECT_NE(received.output.find("HTTP/1.1 200 OK"), std::string::npos) << received.output;
    EXPECT_NE(
        received.output.find(
            "{\"uploads\":0,\"records\":{},\"play_actions\":{},\"diagnoses\":0,\"settings\":0}\n"),
        std::string::npos)
        << received.output;
    ::kill(pid, signal);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "signal " << signal;
    std::string rest;
    char chunk[1024];
    ssize_t got;
    while ((got = ::read(errors, chunk, sizeof chunk)) > 0) rest.append(chunk, got);
    ::close(errors);
    EXPECT_NE(rest.find("qxlog-collector: stopped"), std::string::npos) << rest;
    EXPECT_TRUE(std::filesystem::exists(scratch / "collector.db"));
  }
}

TEST(DemoProcess, EverythingItReportsArrivesInTheDatabase) {
  ScratchDirectory scratch;
  const std::string database = scratch / "demo.db";
  Finished demo =
      run(std::string(QXLOG_TEST_DEMO) + " --quiet --timeout 30 --db " + shellQuoted(database));
  ASSERT_EQ(demo.status, 0) << demo.output;
  EXPECT_NE(demo.output.find("everything arrived"), std::string::npos) << demo.output;

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

TEST(ExampleCHost, ReportsToACollector) {
  ScratchDirectory scratch;
  collector::LocalCollectorOptions options;
  options.database = scratch / "collector.db";
  options.collector.key = "demo-key-0123456";
  options.output = collector::Output::kQuiet;
  std::string error;
  auto collector = collector::LocalCollector::start(options, error);
  ASSERT_TRUE(collector) << error;

  Finished host = run(std::string(QXLOG_TEST_EXAMPLE_C_HOST) + " " +
                      shellQuoted(scratch / "Documents") + " " + collector->baseUrl());
  EXPECT_EQ(host.status, 0) << host.output;
  const collector::Delivered delivered = collector->store().delivered("c-host-device");
  EXPECT_EQ(delivered.records, (std::map<std::string, int64_t>{{"0", 1}, {"2", 1}}));
}

}  // namespace
}  // namespace qxlog
