// Submission and upload against a real log server on 127.0.0.1: when a batch
// goes out, what a failure repeats and drops, what confirms, and uploads under
// real concurrency.
#include <algorithm>
#include <filesystem>
#include <set>
#include <thread>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/serial/PropertyList.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using std::chrono::seconds;

Dictionary action(const std::string& item) {
  return strings({{"a_t", "2"}, {"a_1", item}});
}
void store(const std::string& item) {
  QXLogCenter::center().storeActionLog(action(item));
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
  EXPECT_EQ(sentItems(0), Items{"tap"});
  EXPECT_EQ(*body(0).asDictionary()->find("t"), Value(format().publicLog()));
  EXPECT_EQ(console_->countStartingWith("Ostra->LogContent:{\"t\":"), 1u);
}

TEST_F(UploadTest, BatchSizeDecidesWhenTheQueueGoesOut) {
  logEnvReady(true);
  format().setLimitLogCount(20);
  EXPECT_EQ(reportAndSettle(0, 19), 0u);
  ASSERT_EQ(reportAndSettle(19, 1), 1u);
  EXPECT_EQ(sentItems(0), numbers(0, 20));
  format().setLimitLogCount(0);  // every store submits
  EXPECT_EQ(reportAndSettle(20, 1), 2u);
  EXPECT_EQ(reportAndSettle(21, 1), 3u);
  format().setIsDev(true);  // pairs
  EXPECT_EQ(reportAndSettle(22, 1), 3u);
  ASSERT_EQ(reportAndSettle(23, 1), 4u);
  EXPECT_EQ(sentItems(3), numbers(22, 2));
}

TEST_F(UploadTest, PlayRecordsWithoutAHeaderHoldEverythingBackUntilAPlayStarts) {
  logEnvReady(true);
  recordPlayActionLog("4", "1", "0", "1", "0", "10", "0");
  EXPECT_EQ(reportAndSettle(0, 3), 0u);
  EXPECT_EQ(center().actionLog().size(), 3u);
  // The next play start closes nothing (no header yet) but sets one; the next
  // store folds the waiting play record under it, and submits everything.
  recordMoviePlayLog("m1", "/local/file", "home", true, nullptr);
  ASSERT_EQ(reportAndSettle(3, 1), 1u);
  EXPECT_EQ(sentItems(0), (Items{"0", "1", "2", "3", "localhost"}));
  EXPECT_EQ(field(records(0)[4], "a_7"), "m1");
  EXPECT_TRUE(center().playActionLog().empty());
}

TEST_F(UploadTest, FiveHundredRecordsAreSentAndALongerBacklogIsDiscarded) {
  format().setLimitLogCount(100000);
  Array backlog;
  for (const std::string& item : numbers(0, 500)) backlog.push_back(Value(action(item)));
  center().setActionLog(backlog);
  center().submitAllLog();
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(sentItems(0), numbers(0, 500));

  for (const std::string& item : numbers(0, 501)) store(item);
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
  store("lost");  // fails, repeats, fails
  settle();
  std::vector<ReceivedRequest> sent = server_->requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].header("content-encoding") + " " + sent[1].header("content-encoding") + " " +
                sent[1].path,
            "<missing> gzip /log");
  EXPECT_EQ(sent[1].batch(), sent[0].batch());
  // The repeat has no plain-text copy left to trace.
  EXPECT_TRUE(console_->contains("Ostra->LogContent:(null)"));
  // After the second failure the batch is gone, from memory and from disk.
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_FALSE(std::filesystem::exists(documentsPath(kActionFile)));

  store("second");  // fails, no repeat
  settle();
  EXPECT_EQ(server_->requestCount(), 3u);
  server_->script(ScriptedAnswer::json(R"({"operate_code":"500"})"));  // completes
  store("third");
  settle();
  server_->script({503, "text/html", "busy"});
  server_->script(ScriptedAnswer());
  store("fourth");  // fails and is repeated again, with success
  settle();
  ASSERT_EQ(server_->requestCount(), 6u);
  EXPECT_EQ(sentItems(5), Items{"fourth"});
  EXPECT_GT(dispatcher_->pending(), 0u);  // the timer restarted by the "200"
}

TEST_F(UploadTest, OnlyAJsonAnswerWithTheStringCode200ConfirmsAndRestartsTheTimer) {
  // The answer, the requests it leads to (2: it failed, and the repeat was
  // confirmed), and whether the timer was restarted.
  for (auto [answer, requests, timer] :
       {std::tuple(ScriptedAnswer{500, "application/json", R"({"operate_code":"200"})"}, 2u, true),
        std::tuple(ScriptedAnswer{200, "text/plain", R"({"operate_code":"200"})"}, 2u, true),
        std::tuple(ScriptedAnswer::json("<html>ok</html>"), 2u, true),
        std::tuple(ScriptedAnswer::json(""), 2u, true),
        std::tuple(ScriptedAnswer::json(R"({"operate_code":200})"), 1u, false),  // completed only
        std::tuple(ScriptedAnswer(), 1u, true)}) {
    SCOPED_TRACE(answer.body);
    TearDown();
    SetUp();
    format().setPush_interval_time(Value("2000"));  // N = 2: a submission 4 s after a restart
    server_->script(answer);
    store("x");
    settle();
    EXPECT_EQ(server_->requestCount(), requests);
    EXPECT_TRUE(center().actionLog().empty());
    EXPECT_EQ(dispatcher_->pending() > 0, timer);
  }
  format().setLimitLogCount(1000);
  store("timed");
  dispatcher_->advance(seconds(3));
  EXPECT_EQ(server_->requestCount(), 1u);
  dispatcher_->advance(seconds(1));
  ASSERT_EQ(server_->requestCount(), 2u);
  EXPECT_EQ(sentItems(1), Items{"timed"});
}

TEST_F(UploadTest, DiagnosisUploadsLeaveTheQueueAloneUnlessTheyFail) {
  format().setLimitLogCount(1000);
  store("queued");
  center().pushLog(strings({{"diagnosis_log", "abc"}, {"token", "t"}}), format().pushDiagnosisUrl(),
                   true);
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  ReceivedRequest request = server_->requests()[0];
  EXPECT_EQ(request.path + " " + request.header("content-encoding") + " " +
                request.param("diagnosis_log"),
            "/diagnosis gzip abc");
  EXPECT_EQ(center().actionLog().size(), 1u);
  EXPECT_GT(dispatcher_->pending(), 0u);  // the timer restarted by the "200"

  // A failure restores the queue as it was when the upload started.
  server_->setFallback({500, "application/json", "{}"});
  center().pushLog(strings({{"diagnosis_log", "x"}}), format().pushDiagnosisUrl(), true);
  store("meanwhile");  // while the request is in flight
  settle();
  EXPECT_EQ(server_->requestCount(), 3u);
  EXPECT_EQ(center().actionLog(), Array{Value(action("queued"))});
}

TEST_F(UploadTest, BehaviorLogPostsTheHostsDictionaryAsItIs) {
  QXLogDictionary* fields = QXLogDictionaryCreateWithJSON(
      R"({"event":"share","value":"a+b=c/d","nested":{"k":"v"},"log_data_str":"trace"})");
  ASSERT_NE(fields, nullptr);
  recordBehaviorLog(fields, server_->url("/behavior").c_str(), true);  // waits, keeping the handle
  QXLogDictionaryRelease(fields);
  logEnvReady(true);
  dispatcher_->advance(seconds(5));
  ASSERT_EQ(server_->requestCount(), 1u);
  ReceivedRequest request = server_->requests()[0];
  EXPECT_EQ(request.path + " " + request.header("content-encoding"), "/behavior gzip");
  EXPECT_EQ(request.params, (std::multimap<std::string, std::string>{
                                {"event", "share"}, {"nested[k]", "v"}, {"value", "a+b=c/d"}}));
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
  store("2");
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
  store("n1");
  for (const char* answer : {"200", "500"}) {
    if (answer[0] == '5') server_->setFallback({500, "application/json", "{}"});
    format().setLimitLogCount(1);
    store(answer);  // sent (failed: restored, sent again)
    settle();
    format().setLimitLogCount(100000);
    for (const char* item : {"a", "b", "c"}) store(item);
    same(__LINE__);
  }
  EXPECT_EQ(server_->requestCount(), 3u);
}

// Uploads under real concurrency: the built-in main and global queues, the
// system clock, several host threads and a loopback log server. (The demo and
// the GLib host, run by other tests, answer uploads one by one on real queues.)
TEST(UploadStressTest, ConcurrentReportsAreNeverDuplicatedOrInvented) {
  constexpr const char* kKey = "stress-key-16byt";
  char pattern[] = "/tmp/qxlog-stress-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  TestServer server;
  auto env = std::make_shared<platform::Env>(
      platform::Env::Parts{.console = [](const std::string&) {}, .documents = pattern});
  QXLogMessageFormat& format = center::CenterRegistry::replaceForTesting(env).format();
  format.setPushLogUrl(server.url("/log"));
  format.setLogEncryptionKey(kKey);
  format.setUid("1");
  format.setPush_interval_time(Value("60000"));
  format.setLimitLogCount(20);
  logEnvReady(true);
  std::thread mainThread([] { QXLogMainQueueRun(); });
  std::vector<std::thread> hosts;
  std::set<std::string> reported;
  for (int t = 0; t < 4; ++t) {
    for (const std::string& item : numbers(t * 1000, 400)) reported.insert(item);
    hosts.emplace_back([t] {
      for (const std::string& item : numbers(t * 1000, 400)) recordActionLog(item.c_str(), "0");
    });
  }
  for (std::thread& host : hosts) host.join();
  // Until the server has seen no request for a while.
  for (std::size_t seen = SIZE_MAX; seen != server.requestCount();) {
    seen = server.requestCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  QXLogMainQueueStop();
  mainThread.join();

  Items received;
  for (const ReceivedRequest& request : server.requests()) {
    auto body = collector::decodeLogData(request.param("log_data"), kKey);
    ASSERT_TRUE(body) << body.error;
    for (std::string& item : items(*body.value->asDictionary()->find("a")->asArray()))
      received.push_back(item);
  }
  const std::set<std::string> unique(received.begin(), received.end());
  EXPECT_EQ(unique.size(), received.size()) << "a record was received twice";
  EXPECT_TRUE(std::includes(reported.begin(), reported.end(), unique.begin(), unique.end()));
  EXPECT_GT(received.size(), 0u);
  // The queue file is empty or whole.
  const std::string bytes =
      env->files().read(env->documentsPath("UserStatisticalLog.plist")).value_or("");
  EXPECT_TRUE(bytes.empty() || serial::parsePropertyList(bytes).value_or(Value()).isArray());
  std::filesystem::remove_all(pattern);
}

}  // namespace
}  // namespace qxlog::testing
