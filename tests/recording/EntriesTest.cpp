// The exported functions: from the host's call, through the gate, to the
// record in its queue; and the C interface's own values (the host dictionary,
// the version, the format's named strings). The C11 build against the public
// header is the example C host, which ToolsTest runs.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

class EntriesTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    center().format().setLimitLogCount(1000);  // no batch is reached in these tests
    logEnvReady(true);
  }
  std::string header() { return json(center().currentPlayHeader().value_or(Dictionary())); }
};

TEST_F(EntriesTest, LaunchWithoutPushIdEqualsAnEmptyPushId) {
  recordLaunchLog("cold");
  recordLaunchLogWithPushId("cold", "");
  recordLaunchLogWithPushId("warm", "p-9");
  Array queue = center().actionLog();
  ASSERT_EQ(queue.size(), 3u);
  // The free disk space ("a_8") moves whenever anything on the machine writes.
  for (Value& record : queue) record.asDictionary()->erase("a_8");
  EXPECT_EQ(queue[0], queue[1]);
  EXPECT_EQ(field(queue[0], "a_2"), "1700000000000");  // start time from the clock
  EXPECT_EQ(field(queue[2], "a_1") + field(queue[2], "a_3"), "warmp-9");
}

TEST_F(EntriesTest, PlayStartBecomesTheHeaderAndIsTraced) {
  recordSmallPlayLog("m1", "http://localhost/a b", "home", false, nullptr);
  EXPECT_EQ(header(), "{\"a_t\":\"5\",\"a_1\":\"127.0.0.1\",\"a_3\":\"" +
                          QXLogHelper::getIPAddress() +
                          "\",\"a_4\":\"0\",\"a_5\":\"0\",\"a_6\":\"home\",\"a_7\":\"m1\","
                          "\"a_8\":\"http://localhost/a%20b\",\"a_9\":\"1\"}");
  EXPECT_TRUE(console_->contains("Play-currentPlayHeader:" + header()));
  // The header waits; nothing is queued.
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_TRUE(center().playActionLog().empty());
}

TEST_F(EntriesTest, FixedTypePlaysForwardWithTheirType) {
  struct Case {
    void (*entry)(const char*, const char*, const char*, bool, const char*);
    const char* type;
  };
  for (Case c : {Case{recordMoviePlayLog, "1"}, Case{recordSmallPlayLog, "5"},
                 Case{recordChannelPlayLog, "6"}}) {
    c.entry("m", "/local/file", "src", true, "0");
    const std::string forwarded = header();
    recordPlayLog("m", "/local/file", "src", true, "0", c.type);
    EXPECT_EQ(forwarded, header());
    EXPECT_EQ(forwarded, "{\"a_t\":\"" + std::string(c.type) +
                             "\",\"a_1\":\"localhost\",\"a_3\":\"" + QXLogHelper::getIPAddress() +
                             "\",\"a_4\":\"0\",\"a_5\":\"0\",\"a_6\":\"src\",\"a_7\":\"m\","
                             "\"a_8\":\"/local/file\",\"a_9\":\"0\"}");
  }
}

TEST_F(EntriesTest, PlayActionsAreQueuedAndFoldedUnderThePreviousHeaderByTheNextPlay) {
  recordMoviePlayLog("m0", "/a", "s", true, "0");
  recordMoviePlayLog("m1", "/a", "s", true, "0");  // nothing to fold: replaces the header
  EXPECT_TRUE(center().actionLog().empty());
  recordPlayActionLog("4", "playing", "10", "20", "0", "5", "1000");
  const std::string record =
      R"({"p_0":"1700000000000","p_1":"1","p_2":"4","p_3":"playing","p_4":"10","p_5":"20",)"
      R"("p_6":"0","p_7":"5","p_8":"3000"})";
  EXPECT_TRUE(console_->contains("Play-log:" + record));
  EXPECT_EQ(readQueueFile("USERPlayActionStatisticalLog.plist"), center().playActionLog());
  ASSERT_EQ(center().playActionLog().size(), 1u);

  recordMoviePlayLog("m2", "/b", "s", true, "0");
  Array queue = center().actionLog();
  ASSERT_EQ(queue.size(), 1u);
  EXPECT_EQ(field(queue[0], "a_7"), "m1");
  EXPECT_NE(json(*queue[0].asDictionary()).find(",\"p\":[" + record + "]}"), std::string::npos);
  EXPECT_TRUE(center().playActionLog().empty());
  EXPECT_EQ(field(*center().currentPlayHeader(), "a_7"), "m2");
}

TEST_F(EntriesTest, TrailerSharesThePlayActionRecordAndFilter) {
  recordPlayTrailerLog("5", "buffering", "A", "B", "1", "2", "12");
  recordPlayActionLog("5", "buffering", "A", "B", "1", "2", "12");
  // The play-action offset, not 12000; the repeat was filtered, yet its empty
  // record is traced and queued.
  const std::string record =
      R"({"p_0":"1700000000000","p_1":"1","p_2":"5","p_3":"buffering","p_4":"A","p_5":"B",)"
      R"("p_6":"1","p_7":"2","p_8":"2012"})";
  EXPECT_TRUE(console_->contains("PlayTrailer-log:" + record));
  EXPECT_TRUE(console_->contains("Play-log:{}"));
  Array queue = center().playActionLog();
  ASSERT_EQ(queue.size(), 2u);
  EXPECT_EQ(json(*queue[0].asDictionary()) + json(*queue[1].asDictionary()), record + "{}");
}

TEST_F(EntriesTest, PlayActionsFromSeveralThreadsAreAllKept) {
  constexpr int kPerThread = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i) {
        // Distinct start times: no buffering report repeats the previous one.
        std::string start = std::to_string(t) + "-" + std::to_string(i);
        recordPlayActionLog("5", "buffering", start.c_str(), "e", "0", "1", "2");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  Array queue = center().playActionLog();
  ASSERT_EQ(queue.size(), 2u * kPerThread);
  for (const Value& record : queue) EXPECT_EQ(field(record, "p_8"), "2002");
}

TEST_F(EntriesTest, DiagnosesBypassTheQueues) {
  logEnvReady(false);
  recordDiagnosLog("p1", "p2", "p3", "p4", "p5", "p6", "p7", "p8");
  QXLogDictionary* report = QXLogDictionaryCreate();
  put(report, "k", "v");
  recordDiagnosCompleteLog(report);
  QXLogDictionaryRelease(report);  // the deferred call keeps its own reference
  recordDiagnosCompleteLog(nullptr);
  EXPECT_EQ(dispatcher_->pending(), 3u);
  logEnvReady(true);
  dispatcher_->advance(std::chrono::seconds(5));
  EXPECT_EQ(dispatcher_->pending(), 0u);
  recordDiagnosLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_FALSE(readQueueFile("UserStatisticalLog.plist").has_value());
  EXPECT_FALSE(readQueueFile("USERPlayActionStatisticalLog.plist").has_value());
}

using std::chrono::seconds;

class GateTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    format().setLimitLogCount(1000);  // keep records queued
  }
  Array queue() { return center().actionLog(); }
  std::vector<std::string> queued() { return items(queue()); }
};

TEST_F(GateTest, ReportWaitsUntilTheFirstRetryAfterReadiness) {
  recordActionLog("tap", "3");
  EXPECT_EQ(dispatcher_->pending(), 1u);
  dispatcher_->advance(seconds(5));  // first retry: still not ready
  EXPECT_EQ(dispatcher_->pending(), 1u);
  dispatcher_->advance(seconds(2));
  logEnvReady(true);                 // at 7 s
  dispatcher_->advance(seconds(2));  // 9 s
  EXPECT_TRUE(queue().empty());
  dispatcher_->advance(seconds(1));  // 10 s: the second retry runs the body
  EXPECT_EQ(dispatcher_->pending(), 0u);
  // The record carries the time at which it was built, not that of the call.
  ASSERT_EQ(queue().size(), 1u);
  EXPECT_EQ(json(*queue()[0].asDictionary()),
            R"({"a_t":"2","a_0":"1700000010000","a_1":"tap","a_2":"1700000010000",)"
            R"("a_3":"1700000010000","a_4":"0","a_5":"3"})");
}

TEST_F(GateTest, ReadyRunsAtOnceNotReadyAgainDefersAndTicksKeepTheirOrder) {
  logEnvReady(true);
  logEnvReady(true);  // idempotent
  recordActionLog("first", nullptr);
  EXPECT_EQ(queued(), std::vector<std::string>{"first"});
  EXPECT_EQ(dispatcher_->pending(), 0u);
  logEnvReady(false);
  recordActionLog("early", "");
  dispatcher_->advance(seconds(3));
  char buffer[] = "late";
  recordActionLog(buffer, buffer);
  buffer[0] = 'X';  // deferred calls keep copies of their arguments
  dispatcher_->advance(seconds(60));
  EXPECT_EQ(dispatcher_->pending(), 2u);  // still retrying, one task per report
  logEnvReady(true);
  recordActionLog("ready", "");  // overtakes both deferred reports
  dispatcher_->advance(seconds(10));
  EXPECT_EQ(queued(), (std::vector<std::string>{"first", "ready", "early", "late"}));
}

TEST_F(GateTest, ReportsWithoutTheirKeyAreDroppedBeforeTheGate) {
  for (bool ready : {false, true}) {
    logEnvReady(ready);
    recordNetworkLog(nullptr, 5, "e");
    recordNetworkLog("", 5, "e");
    recordDownLog("m1", nullptr, "name", "10", "/p", "1");
    recordDownLog("m1", "", "name", "10", "/p", "1");
    EXPECT_EQ(dispatcher_->pending(), 0u);
    EXPECT_TRUE(queue().empty());
  }
  logEnvReady(false);
  recordNetworkLog(" ", -5, "e");                // a blank is a value
  recordDownLog("", "ftp://x", "", "", "", "");  // only the URL is tested
  EXPECT_EQ(dispatcher_->pending(), 2u);
  logEnvReady(true);
  dispatcher_->advance(seconds(5));
  ASSERT_EQ(queue().size(), 2u);
  EXPECT_EQ(json(*queue()[0].asDictionary()),
            R"({"a_t":"7","a_0":"1700000005000","a_1":"-5","a_2":"e","a_3":" "})");
  EXPECT_EQ(field(queue()[1], "a_t"), "3");
}

TEST_F(GateTest, CurrentTimeTruncatesToTheMillisecond) {
  for (auto [wall, text] :
       {std::pair{1700000000.9999, "1700000000999"}, std::pair{1700000000.1239, "1700000000123"}}) {
    clock_->setWallSeconds(wall);
    EXPECT_EQ(taken(currentTime()), text);
  }
}

std::string hostJson(const QXLogDictionary* dictionary) {
  return taken(QXLogDictionaryCopyJSON(dictionary));
}

TEST(HostDictionaryTest, PutReplacesInPlaceAndOnlyJsonObjectsAreRead) {
  QXLogDictionary* dictionary = QXLogDictionaryCreateWithJSON(R"({"a":"1","n":5,"d":{"k":[]}})");
  ASSERT_NE(dictionary, nullptr);
  put(dictionary, "a", "2");
  put(dictionary, nullptr, "ignored");
  put(dictionary, "b", nullptr);
  put(dictionary, "q", "\"quoted\"");
  put(nullptr, "a", "no crash");
  EXPECT_EQ(hostJson(dictionary), R"({"a":"2","n":5,"d":{"k":[]},"b":"","q":"\"quoted\""})");
  QXLogDictionaryRelease(dictionary);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("[1,2]"), nullptr);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("{broken"), nullptr);
  EXPECT_EQ(hostJson(nullptr), "<null>");
}

class CInterfaceTest : public LibraryTest {};

TEST_F(CInterfaceTest, VersionNamedStringsEachUnknownNameSaidOnceAndDevelopmentMode) {
  EXPECT_EQ(QXLogVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(QXLogVersionString),
               "@(#)PROGRAM:QXLog  PROJECT:Pods-1\n");
  QXLogFormatSetString("pushLogUrl", "http://127.0.0.1:1/log");
  QXLogFormatSetString("pushlogurl", "x");
  QXLogFormatSetString("pushlogurl", "y");
  QXLogFormatSetString("uidd", "z");
  EXPECT_EQ(console_->lines(),
            (std::vector<std::string>{"QXLog: unknown property \"pushlogurl\" ignored",
                                      "QXLog: unknown property \"uidd\" ignored"}));
  EXPECT_EQ(taken(QXLogFormatCopyString("pushLogUrl")), "http://127.0.0.1:1/log");
  EXPECT_EQ(QXLogFormatCopyString("phone"), nullptr);  // nil
  EXPECT_EQ(QXLogFormatCopyString("no such property"), nullptr);
  QXLogFormatSetIsDev(true);
  EXPECT_EQ(format().limitLogCount(), 2);
}

// The console handler runs with no lock of the library held: it may call back
// into the library, with a call that writes a console line of its own too.
TEST_F(CInterfaceTest, TheConsoleHandlerMayCallBackIntoTheLibrary) {
  std::vector<std::string> lines;
  QXLogSetConsoleHandler(
      [](const char* line, void* context) {
        auto* seen = static_cast<std::vector<std::string>*>(context);
        seen->push_back(line);
        if (seen->size() == 1) QXLogFormatSetString("reenteredName", "x");
      },
      &lines);
  QXLogFormatSetString("firstName", "x");
  QXLogSetConsoleHandler(nullptr, nullptr);
  EXPECT_EQ(lines, (std::vector<std::string>{"QXLog: unknown property \"firstName\" ignored",
                                             "QXLog: unknown property \"reenteredName\" ignored"}));
}

// A line written while the center holds its lock (the common header's trace
// for a user without a uid, as a batch is sealed) reaches the handler once
// the lock is released: a handler that reads the center does not hang.
TEST_F(CInterfaceTest, TheConsoleHandlerMayCallTheCenterForALineWrittenUnderItsLock) {
  std::vector<std::size_t> queuedWhenSeen;
  QXLogSetConsoleHandler(
      [](const char*, void* context) {
        static_cast<std::vector<std::size_t>*>(context)->push_back(
            QXLogCenter::center().actionLog().size());
      },
      &queuedWhenSeen);
  center().storeActionLog(strings({{"a_t", "1"}}));
  center().submitAllLog();
  QXLogSetConsoleHandler(nullptr, nullptr);
  ASSERT_FALSE(queuedWhenSeen.empty());
  EXPECT_EQ(queuedWhenSeen.front(), 0u);  // the batch had left the queue
}

}  // namespace
}  // namespace qxlog::testing
