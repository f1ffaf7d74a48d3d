// The exported functions, from the host's call through the gate to the queued record, and the
// C interface's own values (host dictionary, version, named strings); the C host: ToolsTest.
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

using std::chrono::seconds;
using Strings = std::vector<std::string>;

class EntriesTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    center().format().setLimitLogCount(1000);  // no batch is reached in these tests
    if (ready_) logEnvReady(true);
  }
  std::string header() { return json(center().currentPlayHeader().value_or(Dictionary())); }
  Array queue() { return center().actionLog(); }
  Strings queued() { return items(queue()); }
  bool ready_ = true;
};

TEST_F(EntriesTest, LaunchWithoutPushIdEqualsAnEmptyPushId) {
  recordLaunchLog("cold");
  recordLaunchLogWithPushId("cold", "");
  recordLaunchLogWithPushId("warm", "p-9");
  Array records = queue();
  ASSERT_EQ(records.size(), 3u);
  // The free disk space ("a_8") moves whenever anything on the machine writes.
  for (Value& record : records) record.asDictionary()->erase("a_8");
  EXPECT_EQ(records[0], records[1]);
  EXPECT_EQ(field(records[0], "a_2"), "1700000000000");  // start time from the clock
  EXPECT_EQ(field(records[2], "a_1") + field(records[2], "a_3"), "warmp-9");
}

// The header is traced and waits; the fixed-type entries are the general one with their type.
TEST_F(EntriesTest, PlayStartBecomesTheTracedHeaderAndFixedTypesForwardWithTheirType) {
  auto expected = [](const std::string& type, const char* host, const std::string& rest) {
    return "{\"a_t\":\"" + type + "\",\"a_1\":\"" + host + "\",\"a_3\":\"" +
           QXLogHelper::getIPAddress() + "\",\"a_4\":\"0\",\"a_5\":\"0\"," + rest + "}";
  };
  recordSmallPlayLog("m1", "http://localhost/a b", "home", false, nullptr);
  EXPECT_EQ(header(),
            expected("5", "127.0.0.1",
                     R"("a_6":"home","a_7":"m1","a_8":"http://localhost/a%20b","a_9":"1")"));
  EXPECT_TRUE(console_->contains("Play-currentPlayHeader:" + header()));
  EXPECT_TRUE(queue().empty());
  EXPECT_TRUE(center().playActionLog().empty());
  for (auto [entry, type] : {std::pair{&recordMoviePlayLog, "1"},
                             {&recordSmallPlayLog, "5"},
                             {&recordChannelPlayLog, "6"}}) {
    entry("m", "/local/file", "src", true, "0");
    const std::string forwarded = header();
    recordPlayLog("m", "/local/file", "src", true, "0", type);
    EXPECT_EQ(header(), forwarded);
    EXPECT_EQ(forwarded, expected(type, "localhost",
                                  R"("a_6":"src","a_7":"m","a_8":"/local/file","a_9":"0")"));
  }
}

TEST_F(EntriesTest, PlayActionsAreQueuedAndFoldedUnderThePreviousHeaderByTheNextPlay) {
  recordMoviePlayLog("m0", "/a", "s", true, "0");
  recordMoviePlayLog("m1", "/a", "s", true, "0");  // nothing to fold: replaces the header
  EXPECT_TRUE(queue().empty());
  recordPlayActionLog("4", "playing", "10", "20", "0", "5", "1000");
  const std::string record =
      R"({"p_0":"1700000000000","p_1":"1","p_2":"4","p_3":"playing","p_4":"10","p_5":"20",)"
      R"("p_6":"0","p_7":"5","p_8":"3000"})";
  EXPECT_TRUE(console_->contains("Play-log:" + record));
  ASSERT_EQ(center().playActionLog().size(), 1u);
  EXPECT_EQ(readQueueFile("USERPlayActionStatisticalLog.plist"), center().playActionLog());

  recordMoviePlayLog("m2", "/b", "s", true, "0");
  ASSERT_EQ(queue().size(), 1u);
  EXPECT_EQ(field(queue()[0], "a_7"), "m1");
  EXPECT_NE(json(*queue()[0].asDictionary()).find(",\"p\":[" + record + "]}"), std::string::npos);
  EXPECT_TRUE(center().playActionLog().empty());
  EXPECT_EQ(field(*center().currentPlayHeader(), "a_7"), "m2");
}

// The play-action offset, not 12000; the filtered repeat's empty record is traced and queued.
TEST_F(EntriesTest, TrailerSharesThePlayActionRecordAndFilter) {
  recordPlayTrailerLog("5", "buffering", "A", "B", "1", "2", "12");
  recordPlayActionLog("5", "buffering", "A", "B", "1", "2", "12");
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
  auto report = [](int t) {
    // Distinct start times: no buffering report repeats the previous one.
    for (int i = 0; i < 100; ++i) {
      const std::string start = std::to_string(t) + "-" + std::to_string(i);
      recordPlayActionLog("5", "buffering", start.c_str(), "e", "0", "1", "2");
    }
  };
  std::jthread(report, 0), std::jthread(report, 1);  // both run before either joins
  Array queue = center().playActionLog();
  ASSERT_EQ(queue.size(), 200u);
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
  dispatcher_->advance(seconds(5));
  EXPECT_EQ(dispatcher_->pending(), 0u);
  recordDiagnosLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_FALSE(readQueueFile("UserStatisticalLog.plist").has_value());
  EXPECT_FALSE(readQueueFile("USERPlayActionStatisticalLog.plist").has_value());
}

// The gate, from an environment that was never ready.
class GateTest : public EntriesTest {
 public:
  GateTest() { ready_ = false; }
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
  EXPECT_EQ(queued(), Strings{"first"});
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
  EXPECT_EQ(queued(), (Strings{"first", "ready", "early", "late"}));
}

TEST_F(GateTest, ReportsWithoutTheirKeyAreDroppedBeforeTheGate) {
  for (bool ready : {false, true}) {
    logEnvReady(ready);
    for (const char* key : {static_cast<const char*>(nullptr), ""}) {
      recordNetworkLog(key, 5, "e");
      recordDownLog("m1", key, "name", "10", "/p", "1");
    }
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
       {std::pair{1700000000.9999, "1700000000999"}, {1700000000.1239, "1700000000123"}}) {
    clock_->setWallSeconds(wall);
    EXPECT_EQ(taken(currentTime()), text);
  }
}

TEST(HostDictionaryTest, PutReplacesInPlaceAndOnlyJsonObjectsAreRead) {
  QXLogDictionary* dictionary = QXLogDictionaryCreateWithJSON(R"({"a":"1","n":5,"d":{"k":[]}})");
  ASSERT_NE(dictionary, nullptr);
  put(dictionary, "a", "2");
  put(dictionary, nullptr, "ignored");
  put(dictionary, "b", nullptr);
  put(dictionary, "q", "\"quoted\"");
  put(nullptr, "a", "no crash");
  EXPECT_EQ(taken(QXLogDictionaryCopyJSON(dictionary)),
            R"({"a":"2","n":5,"d":{"k":[]},"b":"","q":"\"quoted\""})");
  QXLogDictionaryRelease(dictionary);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("[1,2]"), nullptr);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("{broken"), nullptr);
  EXPECT_EQ(taken(QXLogDictionaryCopyJSON(nullptr)), "<null>");
}

using CInterfaceTest = LibraryTest;

TEST_F(CInterfaceTest, VersionNamedStringsEachUnknownNameSaidOnceAndDevelopmentMode) {
  EXPECT_EQ(QXLogVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(QXLogVersionString),
               "@(#)PROGRAM:QXLog  PROJECT:Pods-1\n");
  QXLogFormatSetString("pushLogUrl", "http://127.0.0.1:1/log");
  for (const char* name : {"pushlogurl", "pushlogurl", "uidd"}) QXLogFormatSetString(name, "x");
  EXPECT_EQ(console_->lines(), (Strings{"QXLog: unknown property \"pushlogurl\" ignored",
                                        "QXLog: unknown property \"uidd\" ignored"}));
  EXPECT_EQ(taken(QXLogFormatCopyString("pushLogUrl")), "http://127.0.0.1:1/log");
  EXPECT_EQ(QXLogFormatCopyString("phone"), nullptr);  // nil
  EXPECT_EQ(QXLogFormatCopyString("no such property"), nullptr);
  QXLogFormatSetIsDev(true);
  EXPECT_EQ(format().limitLogCount(), 2);
}

// The handler runs with no lock held, even for a line written under the center's lock (the
// header's trace as a batch is sealed): it may call back in, writing a line itself, or read.
TEST_F(CInterfaceTest, TheConsoleHandlerMayCallBackIntoTheLibrary) {
  struct Seen {
    Strings lines;
    std::vector<std::size_t> queued;  // the action queue's size at each line
  } seen;
  QXLogSetConsoleHandler(
      [](const char* line, void* context) {
        auto* seen = static_cast<Seen*>(context);
        seen->lines.push_back(line);
        seen->queued.push_back(QXLogCenter::center().actionLog().size());
        if (seen->lines.size() == 1) QXLogFormatSetString("reenteredName", "x");
      },
      &seen);
  QXLogFormatSetString("firstName", "x");
  center().storeActionLog(strings({{"a_t", "1"}}));
  center().submitAllLog();
  QXLogSetConsoleHandler(nullptr, nullptr);
  ASSERT_GT(seen.lines.size(), 2u);
  EXPECT_EQ(Strings(seen.lines.begin(), seen.lines.begin() + 2),
            (Strings{"QXLog: unknown property \"firstName\" ignored",
                     "QXLog: unknown property \"reenteredName\" ignored"}));
  EXPECT_EQ(seen.queued[2], 0u);  // the batch had left the queue
}

}  // namespace
}  // namespace qxlog::testing
