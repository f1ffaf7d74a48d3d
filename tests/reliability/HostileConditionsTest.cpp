// The library under hostile conditions: bad input from the host, a Documents
// directory that cannot be written, and log servers that misbehave.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/center/Upload.h"
#include "QXLog/platform/CurlTransport.h"
#include "QXLog/serial/Json.h"
#include "tests/support/HostileServer.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

// Bad input from the host: NULL everywhere, megabyte strings, invalid UTF-8,
// control and XML-special characters. Records round-trip through the queue
// file and the upload.
constexpr const char* kReplacement = "\xEF\xBF\xBD";

class HostInputTest : public UploadTest {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    format().setLimitLogCount(1000);
    logEnvReady(true);
  }
  std::vector<std::string> queuedItems() { return items(center().actionLog()); }
};

// Every value of every record of a queue without play headers is a string:
// nil arguments are stored as "".
void expectOnlyStrings(const Array& queue) {
  const std::string text = serial::toJson(Value(queue));
  for (std::size_t at = text.find("\":"); at != std::string::npos; at = text.find("\":", at + 1)) {
    EXPECT_TRUE(at + 2 == text.size() || text[at + 2] == '"') << text;
  }
}

TEST_F(HostInputTest, NullForEveryStringArgumentIsNil) {
  QXLogFree(currentTime());
  QXLogDictionary* dictionary = QXLogDictionaryCreate();
  put(dictionary, nullptr, nullptr);
  recordLaunchLog(nullptr);
  recordLaunchLogWithPushId(nullptr, nullptr);
  recordActionLog(nullptr, nullptr);
  recordNetworkLog(nullptr, 0, nullptr);                                // dropped: no key
  recordDownLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);  // dropped: no key
  recordPlayLog(nullptr, nullptr, nullptr, false, nullptr, nullptr);
  recordMoviePlayLog(nullptr, nullptr, nullptr, false, nullptr);
  recordSmallPlayLog(nullptr, nullptr, nullptr, true, nullptr);
  recordChannelPlayLog(nullptr, nullptr, nullptr, false, nullptr);
  recordPlayActionLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  recordPlayTrailerLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  recordDiagnosLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  recordDiagnosCompleteLog(nullptr);
  recordBehaviorLog(nullptr, nullptr, false);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON(nullptr), nullptr);
  EXPECT_EQ(QXLogDictionaryCopyJSON(nullptr), nullptr);
  QXLogDictionaryRelease(dictionary);
  QXLogFree(nullptr);
  QXLogFormatSetString("uid", nullptr);
  EXPECT_EQ(QXLogFormatCopyString(nullptr), nullptr);
  QXLogCenterSaveActionStartTime(nullptr);
  settle();

  // Two launches and an action; the play starts went to the play header.
  Array queue = center().actionLog();
  ASSERT_EQ(queue.size(), 3u);
  expectOnlyStrings(queue);
  EXPECT_EQ(field(queue[2], "a_1"), "");
  ASSERT_EQ(center().playActionLog().size(), 2u);
  expectOnlyStrings(center().playActionLog());
  // The file holds what memory holds, and a nil uid travels in the upload.
  EXPECT_EQ(readQueueFile(kActionFile), queue);
  std::size_t before = server_->requestCount();
  center().submitAllLog();
  settle();
  ASSERT_EQ(server_->requestCount(), before + 1);
  Array sent = records(before);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(Value(sent[0]), Value(queue[0]));
}

TEST_F(HostInputTest, HostileStringsRoundTripThroughTheFileAndTheUpload) {
  const std::string r = kReplacement;
  std::string megabyte(1 << 20, 'm');
  for (std::size_t i = 0; i < megabyte.size(); i += 4096) megabyte.replace(i, 5, "<&]]>");
  // Kept as given everywhere; or as given, as held in memory and uploaded,
  // and as read back from the file (XML cannot carry C0 controls).
  std::vector<std::string> given = {"<",        "&",     "]]>",           "<![CDATA[x]]>&amp;",
                                    "lone\rCR", "\r",    "crlf\r\n\ttab", "\x7f del",
                                    "中文 😀",   megabyte};
  std::vector<std::string> held = given, fromFile = given;
  const std::string changed[][3] = {
      {"bell\a esc\x1b", "bell\a esc\x1b", "bell" + r + " esc" + r},
      {"a\xff", "a" + r, "a" + r},
      {"cut \xc3", "cut " + r, "cut " + r},
      {"\xc0\xaf overlong", r + r + " overlong", r + r + " overlong"}};
  for (const auto& [text, inMemory, inFile] : changed) {
    given.push_back(text);
    held.push_back(inMemory);
    fromFile.push_back(inFile);
  }
  for (const std::string& text : given) recordActionLog(text.c_str(), text.c_str());
  EXPECT_EQ(queuedItems(), held);
  center().submitAllLog();  // straight from memory: every character
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(sentItems(0), held);

  for (const std::string& text : given) recordActionLog(text.c_str(), "1");
  restart();  // through the file
  EXPECT_EQ(queuedItems(), fromFile);
  format().setPushLogUrl(server_->url("/log"));  // the new process's context
  format().setLogEncryptionKey(kTestKey);
  center().submitAllLog();
  settle();
  ASSERT_EQ(server_->requestCount(), 2u);
  EXPECT_EQ(sentItems(1), fromFile);
}

TEST_F(HostInputTest, InvalidUtf8GetsOneTreatmentEverywhere) {
  std::string r = kReplacement;
  QXLogFormatSetString("uid", "u\xfe");
  EXPECT_EQ(taken(QXLogFormatCopyString("uid")), "u" + r);

  QXLogDictionary* dictionary = QXLogDictionaryCreateWithJSON("{\"k\":\"v\xff\"}");
  ASSERT_NE(dictionary, nullptr);
  put(dictionary, "key\x80", "value\xc3");
  EXPECT_EQ(taken(QXLogDictionaryCopyJSON(dictionary)),
            "{\"k\":\"v" + r + "\",\"key" + r + "\":\"value" + r + "\"}");
  QXLogDictionaryRelease(dictionary);

  recordLaunchLogWithPushId("launch\xf5", "push\xed\xa0\x80");
  Array queue = center().actionLog();
  ASSERT_EQ(queue.size(), 1u);
  EXPECT_EQ(field(queue[0], "a_1"), "launch" + r);
  EXPECT_EQ(field(queue[0], "a_3"), "push" + r + r + r);
  restart();
  EXPECT_EQ(center().actionLog(), queue);
}

// A Documents directory that cannot be written: missing, read-only, or on a
// full file system (the test environment's files fail as theirs do). Reports
// go on in memory, and the first store that can write again writes the whole
// queue.
namespace fs = std::filesystem;

enum class Trouble { kMissing, kReadOnly, kFull };

class DiskTroubleTest : public LibraryTest, public ::testing::WithParamInterface<Trouble> {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    format().setLimitLogCount(1000);  // nothing is uploaded
    logEnvReady(true);
  }
  static void report(int from, int to) {
    for (int i = from; i < to; ++i) recordActionLog(std::to_string(i).c_str(), "1");
  }
  static std::vector<std::string> numbers(int from, int to) {
    std::vector<std::string> result;
    for (int i = from; i < to; ++i) result.push_back(std::to_string(i));
    return result;
  }
  std::vector<std::string> inMemory() { return items(center().actionLog()); }
  std::vector<std::string> inFile() {
    return items(readQueueFile("UserStatisticalLog.plist").value_or(Array()));
  }
  bool temporariesLeft() {
    for (const fs::directory_entry& entry : fs::directory_iterator(documents_)) {
      if (entry.path().filename().string().find(".tmp-") != std::string::npos) return true;
    }
    return false;
  }
};

TEST_P(DiskTroubleTest, ReportsWaitInMemoryAndTheOldFileStandsUntilWritingWorksAgain) {
  const Trouble trouble = GetParam();
  report(0, 2);
  ASSERT_EQ(inFile(), numbers(0, 2));
  if (trouble == Trouble::kMissing) {
    fs::remove_all(documents_);
  } else {
    files_->setFault(trouble == Trouble::kFull ? FaultyFileSystem::Fault::kFull
                                               : FaultyFileSystem::Fault::kReadOnly);
  }

  report(2, 40);
  EXPECT_EQ(inMemory(), numbers(0, 40));
  if (trouble == Trouble::kMissing) {
    EXPECT_FALSE(fs::exists(documents_));
    fs::create_directories(documents_);
  } else {
    EXPECT_EQ(inFile(), numbers(0, 2));  // the write failed; the old file stands
    EXPECT_FALSE(temporariesLeft());
    files_->setFault(FaultyFileSystem::Fault::kNone);
  }
  report(40, 41);
  EXPECT_EQ(inFile(), numbers(0, 41));
  restart();
  EXPECT_EQ(inMemory(), numbers(0, 41));
}

INSTANTIATE_TEST_SUITE_P(Troubles, DiskTroubleTest,
                         ::testing::Values(Trouble::kMissing, Trouble::kReadOnly, Trouble::kFull));

class InterruptedWriteTest : public LibraryTest {};

TEST_F(InterruptedWriteTest, LoadingAQueueClearsOnlyItsOwnInterruptedWrites) {
  const char* stale[] = {"UserStatisticalLog.plist.tmp-a1B2c3",
                         "UserStatisticalLog.plist.tmp-zzzzzz"};
  const char* kept[] = {"UserStatisticalLog.plist.tmp-toolong1",
                        "USERPlayActionStatisticalLog.plist.tmp-a1B2c3",
                        "UserStatisticalLog.plist.bak", "notes.txt"};
  for (const char* name : stale) std::ofstream(documentsPath(name)) << "<plist";
  for (const char* name : kept) std::ofstream(documentsPath(name)) << "x";
  EXPECT_TRUE(center().actionLog().empty());
  for (const char* name : stale) EXPECT_FALSE(fs::exists(documentsPath(name))) << name;
  for (const char* name : kept) EXPECT_TRUE(fs::exists(documentsPath(name))) << name;
}

// The library against servers that misbehave, over real loopback connections:
// every exchange must end, within the time limit, in the failure path or the
// nil values that a broken answer gives, without reading more than the bound.
using std::chrono::milliseconds;
using Behaviour = HostileServer::Behaviour;

// Loopback socket buffers hold a few megabytes beyond what the client read.
constexpr uint64_t kMostBytesTaken = 24ull << 20;

long peakResidentKilobytes() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

class HostileServerTest : public UploadTest {
 protected:
  // Real limits are a minute; a stalled exchange here gives up much sooner.
  HostileServerTest() { httpTimeLimit_ = milliseconds(3000); }
  // The failure path: tried, repeated once, and then the batch is gone.
  void expectBatchLostAfterOneRepeat() {
    EXPECT_EQ(console_->countStartingWith("Ostra->LogContent:"), 2u);
    EXPECT_TRUE(center().actionLog().empty());
    EXPECT_FALSE(std::filesystem::exists(documentsPath("UserStatisticalLog.plist")));
    EXPECT_EQ(dispatcher_->pending(), 0u);  // no timer restarted, nothing left to run
  }
};

TEST_F(HostileServerTest, EveryBrokenExchangeEndsInTheFailurePathWithinTheBound) {
  const long before = peakResidentKilobytes();
  const struct {
    std::optional<Behaviour> behaviour;  // none: the connection is refused
    std::size_t requests;
  } cases[] = {
      {Behaviour::kEndlessBody, 2},     {Behaviour::kHugeAnnounced, 2},
      {Behaviour::kHugeUnannounced, 2}, {Behaviour::kEndlessHeaders, 2},
      {Behaviour::kStall, 2},           {Behaviour::kRedirectLoop, 2 * 17},  // 16 redirects each
      {Behaviour::kClose, 2},           {std::nullopt, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.behaviour ? static_cast<int>(*c.behaviour) : -1);
    const bool stall = c.behaviour == Behaviour::kStall;
    httpTimeLimit_ = milliseconds(stall ? 300 : 3000);
    TearDown();
    SetUp();
    std::optional<HostileServer> server;
    if (c.behaviour) server.emplace(*c.behaviour);
    format().setPushLogUrl(server ? server->url("/log") : refusedUrl("/log"));
    center().storeActionLog(strings({{"a_t", "2"}, {"a_1", "item"}}));
    // The request waits on the global queue; the reporting thread is free.
    EXPECT_GT(dispatcher_->pending(), 0u);
    const auto started = std::chrono::steady_clock::now();
    settle();
    if (stall) {
      EXPECT_GE(std::chrono::steady_clock::now() - started, milliseconds(2 * 300));
    }
    if (server) {
      EXPECT_EQ(server->requests(), c.requests);
      EXPECT_LT(server->bytesSent(), kMostBytesTaken);
    }
    expectBatchLostAfterOneRepeat();
  }
  // No answer was held in memory.
  EXPECT_LT(peakResidentKilobytes() - before, 48L * 1024);
}

TEST_F(HostileServerTest, DeeplyNestedJsonIsNoAnswer) {
  const std::string nested = std::string(10000, '[') + std::string(10000, ']');
  server_->script(ScriptedAnswer::json(nested));
  server_->script(ScriptedAnswer::json(nested));
  center().storeActionLog(strings({{"a_1", "item"}}));
  settle();
  EXPECT_EQ(server_->requestCount(), 2u);
  expectBatchLostAfterOneRepeat();

  // As a settings answer: every setting becomes nil.
  server_->script(ScriptedAnswer::json(R"({"result":)" + nested + "}"));
  center().getLogServerInfo();
  settle();
  EXPECT_TRUE(format().push_interval_time().isNull());
  EXPECT_TRUE(format().current_time().isNull());
  EXPECT_EQ(format().limitLogCount(), 0);
}

// A refusal that arrives while the body is still being sent, from a server
// that then closes without reading the rest: a refusal, not a lost answer.
TEST(EarlyRefusalTest, A413BeforeTheBodyIsReadIsTakenAsARefusal) {
  HostileServer server(HostileServer::Behaviour::kEarlyRefusal);
  platform::HttpRequest request;
  request.method = "POST";
  request.url = server.url("/log");
  request.timeout = std::chrono::seconds(10);
  // Up to 64 KiB the body goes at once and the answer can come in the middle
  // of it; larger ones ask first, and the server's close would cut them off.
  for (std::size_t bytes : {std::size_t{48} << 10, std::size_t{900} << 10, std::size_t{32} << 20}) {
    SCOPED_TRACE(bytes);
    request.body.assign(bytes, 'x');
    for (int attempt = 0; attempt < 3; ++attempt) {
      platform::HttpResponse response = platform::CurlTransport().perform(request);
      EXPECT_EQ(response.status, 413) << response.error;
      EXPECT_EQ(center::judgeAnswer(response).kind, center::AnswerVerdict::Kind::kRefused);
    }
  }
}

}  // namespace
}  // namespace qxlog::testing
