// Submission and upload against a real log server on 127.0.0.1: when a batch
// goes out, what a failure repeats and drops, what confirms, and uploads under
// real concurrency.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <thread>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/platform/BuiltInQueues.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/PropertyList.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/TestServer.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using std::chrono::seconds;

Dictionary action(const std::string& item) {
  return strings({{"a_t", "2"}, {"a_1", item}});
}

TEST_F(UploadTest, EachStoreAtBatchSizeOneIsPostedAndConfirmed) {
  logEnvReady(true);
  recordActionLog("tap", "1");
  // The queue leaves with the request, before any answer.
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_FALSE(std::filesystem::exists(documentsPath(kActionFile)));
  settle();

  // The form the collector reads (CollectorTest), without the plain-text copy.
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(server_->requests()[0].param("log_data_str"), "<missing>");
  EXPECT_EQ(sentItems(0), std::vector<std::string>{"tap"});
  EXPECT_EQ(*body(0).asDictionary()->find("t"), Value(format().publicLog()));
  EXPECT_EQ(console_->countStartingWith("Ostra->LogContent:{\"t\":"), 1u);
}

TEST_F(UploadTest, BatchSizeDecidesWhenTheQueueGoesOut) {
  logEnvReady(true);
  format().setLimitLogCount(20);
  for (int i = 0; i < 19; ++i) recordActionLog(std::to_string(i).c_str(), "");
  settle();
  EXPECT_EQ(server_->requestCount(), 0u);
  recordActionLog("19", "");
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(records(0).size(), 20u);

  format().setLimitLogCount(0);  // every store submits
  recordActionLog("a", "");
  recordActionLog("b", "");
  settle();
  EXPECT_EQ(server_->requestCount(), 3u);

  format().setIsDev(true);  // pairs
  recordActionLog("c", "");
  settle();
  EXPECT_EQ(server_->requestCount(), 3u);
  recordActionLog("d", "");
  settle();
  ASSERT_EQ(server_->requestCount(), 4u);
  EXPECT_EQ(sentItems(3), (std::vector<std::string>{"c", "d"}));
}

TEST_F(UploadTest, PlayRecordsWithoutAHeaderHoldEverythingBackUntilAPlayStarts) {
  logEnvReady(true);
  recordPlayActionLog("4", "1", "0", "1", "0", "10", "0");
  for (int i = 0; i < 3; ++i) recordActionLog("held", "");
  settle();
  EXPECT_EQ(server_->requestCount(), 0u);
  EXPECT_EQ(center().actionLog().size(), 3u);

  // The next play start closes nothing (no header yet) but sets one; the next
  // store folds the waiting play record under it, and submits everything.
  recordMoviePlayLog("m1", "/local/file", "home", true, nullptr);
  recordActionLog("after", "");
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(sentItems(0), (std::vector<std::string>{"held", "held", "held", "after", "localhost"}));
  EXPECT_EQ(field(records(0)[4], "a_7"), "m1");
  EXPECT_TRUE(center().playActionLog().empty());
}

TEST_F(UploadTest, FiveHundredRecordsAreSentAndALongerBacklogIsDiscarded) {
  format().setLimitLogCount(100000);
  Array backlog;
  for (int i = 0; i < 500; ++i) backlog.push_back(Value(action(std::to_string(i))));
  center().setActionLog(backlog);
  center().submitAllLog();
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(records(0).size(), 500u);

  backlog.push_back(Value(action("500")));
  for (const Value& record : backlog) center().storeActionLog(*record.asDictionary());
  center().submitAllLog();
  settle();
  EXPECT_EQ(server_->requestCount(), 1u);
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_FALSE(std::filesystem::exists(documentsPath(kActionFile)));
  EXPECT_TRUE(console_->contains("文件删除成功 = UserStatisticalLog.plist"));
}

TEST_F(UploadTest, WithoutActionRecords) {
  center().pushLog(Dictionary(), server_->url("/x"), true);
  center().pushLog(strings({{"log_data", "x"}}), std::string(), false);  // both queues empty
  settle();
  EXPECT_EQ(server_->requestCount(), 0u);
  // Play records alone, with no header to fold under, send an empty batch.
  center().storePlayLog(strings({{"p_2", "4"}}));
  center().submitAllLog();
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_TRUE(records(0).empty());
  EXPECT_EQ(center().playActionLog().size(), 1u);
}

TEST_F(UploadTest, AFailureIsRepeatedOnceAndThenNotUntilAnUploadCompletes) {
  server_->setFallback({500, "application/json", "{}"});
  center().storeActionLog(action("lost"));  // fails, repeats, fails
  settle();
  ASSERT_EQ(server_->requestCount(), 2u);
  std::vector<ReceivedRequest> sent = server_->requests();
  EXPECT_EQ(sent[0].header("content-encoding"), "<missing>");
  EXPECT_EQ(sent[1].header("content-encoding"), "gzip");
  EXPECT_EQ(sent[1].path, "/log");
  EXPECT_EQ(sent[1].param("log_data"), sent[0].param("log_data"));
  EXPECT_EQ(sent[1].param("token"), sent[0].param("token"));
  // The repeat has no plain-text copy left to trace.
  EXPECT_TRUE(console_->contains("Ostra->LogContent:(null)"));
  // After the second failure the batch is gone, from memory and from disk.
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_FALSE(std::filesystem::exists(documentsPath(kActionFile)));

  center().storeActionLog(action("second"));  // fails, no repeat
  settle();
  EXPECT_EQ(server_->requestCount(), 3u);
  server_->script(ScriptedAnswer::json(R"({"operate_code":"500"})"));  // completes
  center().storeActionLog(action("third"));
  settle();
  server_->script({503, "text/html", "busy"});
  server_->script(ScriptedAnswer());
  center().storeActionLog(action("fourth"));  // fails and is repeated again, with success
  settle();
  ASSERT_EQ(server_->requestCount(), 6u);
  EXPECT_EQ(sentItems(5), std::vector<std::string>{"fourth"});
  EXPECT_GT(dispatcher_->pending(), 0u);  // the timer restarted by the "200"
}

TEST_F(UploadTest, OnlyAJsonAnswerWithTheStringCode200ConfirmsAndRestartsTheTimer) {
  const struct {
    ScriptedAnswer answer;
    std::size_t requests;  // 2: the answer failed, and the repeat was confirmed
    bool timer;
  } cases[] = {{{500, "application/json", R"({"operate_code":"200"})"}, 2, true},
               {{200, "text/plain", R"({"operate_code":"200"})"}, 2, true},
               {ScriptedAnswer::json("<html>ok</html>"), 2, true},
               {ScriptedAnswer::json(""), 2, true},
               {ScriptedAnswer::json(R"({"operate_code":200})"), 1, false},  // completed only
               {ScriptedAnswer(), 1, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer.body);
    TearDown();
    SetUp();
    format().setPush_interval_time(Value("2000"));  // N = 2: a submission 4 s after a restart
    server_->script(c.answer);
    center().storeActionLog(action("x"));
    settle();
    EXPECT_EQ(server_->requestCount(), c.requests);
    EXPECT_TRUE(center().actionLog().empty());
    EXPECT_EQ(dispatcher_->pending() > 0, c.timer);
  }
  format().setLimitLogCount(1000);
  center().storeActionLog(action("timed"));
  dispatcher_->advance(seconds(3));
  EXPECT_EQ(server_->requestCount(), 1u);
  dispatcher_->advance(seconds(1));
  ASSERT_EQ(server_->requestCount(), 2u);
  EXPECT_EQ(sentItems(1), std::vector<std::string>{"timed"});
}

TEST_F(UploadTest, DiagnosisUploadsLeaveTheQueueAloneUnlessTheyFail) {
  format().setLimitLogCount(1000);
  center().storeActionLog(action("queued"));
  center().pushLog(strings({{"diagnosis_log", "abc"}, {"token", "t"}}), format().pushDiagnosisUrl(),
                   true);
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  ReceivedRequest request = server_->requests()[0];
  EXPECT_EQ(request.path, "/diagnosis");
  EXPECT_EQ(request.header("content-encoding"), "gzip");
  EXPECT_EQ(request.param("diagnosis_log"), "abc");
  EXPECT_EQ(center().actionLog().size(), 1u);
  EXPECT_GT(dispatcher_->pending(), 0u);  // the timer restarted by the "200"

  // A failure restores the queue as it was when the upload started.
  server_->setFallback({500, "application/json", "{}"});
  center().pushLog(strings({{"diagnosis_log", "x"}}), format().pushDiagnosisUrl(), true);
  center().storeActionLog(action("meanwhile"));  // while the request is in flight
  settle();
  EXPECT_EQ(server_->requestCount(), 3u);
  EXPECT_EQ(center().actionLog(), Array{Value(action("queued"))});
}

TEST_F(UploadTest, BehaviorLogPostsTheHostsDictionaryAsItIs) {
  QXLogDictionary* fields = QXLogDictionaryCreateWithJSON(
      R"({"event":"share","value":"a+b=c/d","nested":{"k":"v"},"log_data_str":"trace"})");
  ASSERT_NE(fields, nullptr);
  std::string url = server_->url("/behavior");
  recordBehaviorLog(fields, url.c_str(), true);  // waits for readiness, keeping the handle
  QXLogDictionaryRelease(fields);
  logEnvReady(true);
  dispatcher_->advance(seconds(5));
  ASSERT_EQ(server_->requestCount(), 1u);
  ReceivedRequest request = server_->requests()[0];
  EXPECT_EQ(request.path, "/behavior");
  EXPECT_EQ(request.params, (std::multimap<std::string, std::string>{
                                {"event", "share"}, {"nested[k]", "v"}, {"value", "a+b=c/d"}}));
  EXPECT_EQ(request.header("content-encoding"), "gzip");
  EXPECT_TRUE(console_->contains("Ostra->LogContent:trace"));
}

// The center's envelope takes the records' JSON kept beside the queue; it is
// the whole queue's envelope byte for byte, whatever changed the queue before.
TEST_F(UploadTest, TheEnvelopeFromKeptRecordJsonIsTheWholeQueuesEnvelope) {
  auto same = [&](int line) {
    Array queue = center().actionLog();
    EXPECT_EQ(json(center().combinationStatisticalLog()), json(format().combinationLog(&queue)))
        << "line " << line;
  };
  format().setLimitLogCount(100000);
  Dictionary odd = strings({{"a_1", "\"q\"\\/\n\t\x01 \u00e9 \U0001F600 \u2028"}});
  odd.set("p", Value(Array{Value(strings({{"p_1", "x"}})), Value(Array())}));
  center().storeActionLog(odd);
  center().storeActionLog(action("2"));
  same(__LINE__);
  center().setCurrentPlayHeader(strings({{"a_t", "1"}}));
  center().storePlayLog(strings({{"p_2", "\u00fc"}}));
  center().makePlayLog();  // the folded header is stored with its "p" array
  same(__LINE__);
  center().setActionLog(Array{Value(action("r1")), Value(action("r2")), Value(odd)});  // as long
  same(__LINE__);
  center().setActionLog(Array(501, Value(action("old"))));
  same(__LINE__);
  center().submitAllLog();  // discarded
  center().storeActionLog(action("n1"));
  for (const char* answer : {"200", "500"}) {
    if (answer[0] == '5') server_->setFallback({500, "application/json", "{}"});
    format().setLimitLogCount(1);
    center().storeActionLog(action(answer));  // sent (failed: restored, sent again)
    settle();
    format().setLimitLogCount(100000);
    for (const char* item : {"a", "b", "c"}) center().storeActionLog(action(item));
    same(__LINE__);
  }
  EXPECT_EQ(server_->requestCount(), 3u);
}

// Uploads under real concurrency: the built-in main and global queues, the
// system clock, several host threads and a loopback log server. (The demo and
// the GLib host, run by other tests, answer uploads one by one on real queues.)
using std::chrono::milliseconds;

constexpr const char* kKey = "stress-key-16byt";

class UploadStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qxlog-stress-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    documents_ = pattern;
    env_ = std::make_shared<platform::Env>(
        platform::Env::Parts{.console = [](const std::string&) {}, .documents = documents_});
    QXLogMessageFormat& format = center::CenterRegistry::replaceForTesting(env_).format();
    format.setPushLogUrl(server_.url("/log"));
    format.setLogEncryptionKey(kKey);
    format.setUid("1");
    format.setPush_interval_time(Value("60000"));
    logEnvReady(true);
  }
  void TearDown() override { std::filesystem::remove_all(documents_); }

  // Every "a_1" the server received, in arrival order.
  std::vector<std::string> received() const {
    std::vector<std::string> all;
    for (const ReceivedRequest& request : server_.requests()) {
      auto body = collector::decodeLogData(request.param("log_data"), kKey);
      EXPECT_TRUE(body) << body.error;
      const Value* records = body ? body.value->asDictionary()->find("a") : nullptr;
      const std::vector<std::string> sent = items(records ? *records->asArray() : Array());
      all.insert(all.end(), sent.begin(), sent.end());
    }
    return all;
  }

  // Waits until the server has seen no request for a while.
  void waitForQuiet() const {
    std::size_t seen = SIZE_MAX;
    while (seen != server_.requestCount()) {
      seen = server_.requestCount();
      std::this_thread::sleep_for(milliseconds(300));
    }
  }

  TestServer server_;
  std::string documents_;
  std::shared_ptr<platform::Env> env_;
};

TEST_F(UploadStressTest, ConcurrentReportsAreNeverDuplicatedOrInvented) {
  QXLogCenter::center().format().setLimitLogCount(20);
  std::thread mainThread([] { QXLogMainQueueRun(); });
  constexpr int kThreads = 4;
  constexpr int kPerThread = 400;
  std::vector<std::thread> hosts;
  for (int t = 0; t < kThreads; ++t) {
    hosts.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i) {
        std::string item = std::to_string(t) + "-" + std::to_string(i);
        recordActionLog(item.c_str(), "0");
      }
    });
  }
  for (std::thread& host : hosts) host.join();
  waitForQuiet();
  QXLogMainQueueStop();
  mainThread.join();

  std::set<std::string> reported;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kPerThread; ++i)
      reported.insert(std::to_string(t) + "-" + std::to_string(i));
  }
  const std::vector<std::string> items = received();
  const std::set<std::string> unique(items.begin(), items.end());
  EXPECT_EQ(unique.size(), items.size()) << "a record was received twice";
  EXPECT_TRUE(std::includes(reported.begin(), reported.end(), unique.begin(), unique.end()));
  EXPECT_GT(items.size(), 0u);
  // The queue file is empty or whole.
  const std::string bytes =
      env_->files().read(env_->documentsPath("UserStatisticalLog.plist")).value_or("");
  EXPECT_TRUE(bytes.empty() || serial::parsePropertyList(bytes).value_or(Value()).isArray());
}

}  // namespace
}  // namespace qxlog::testing
