// The library against servers that misbehave, over real loopback connections:
// every exchange must end, within the time limit, in the failure path or the
// nil values that a broken answer gives, without reading more than the bound.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>

#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Http.h"
#include "tests/support/HostileServer.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
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
  void SetUp() override {
    UploadTest::SetUp();
    // Real limits are a minute; a stalled exchange here gives up much sooner.
    platform::setHttpTimeoutOverride(milliseconds(3000));
  }
  void TearDown() override {
    platform::setHttpTimeoutOverride(milliseconds(0));
    UploadTest::TearDown();
  }

  // Stores one record at batch size 1 against `url` and runs the upload, its
  // repeat and their answers.
  void uploadTo(const std::string& url) {
    format().setPushLogUrl(url);
    center().storeActionLog(strings({{"a_t", "2"}, {"a_1", "item"}}));
    settle();
  }
  // The failure path: tried, repeated once, and then the batch is gone.
  void expectBatchLostAfterOneRepeat() {
    EXPECT_EQ(console_->countStartingWith("Ostra->LogContent:"), 2u);
    EXPECT_TRUE(center().actionLog().empty());
    EXPECT_FALSE(std::filesystem::exists(documentsPath("UserStatisticalLog.plist")));
    EXPECT_EQ(dispatcher_->pending(), 0u);  // no timer restarted, nothing left to run
  }
};

TEST_F(HostileServerTest, AnAnswerThatNeverEndsIsCutOffAtTheBound) {
  HostileServer server(Behaviour::kEndlessBody);
  uploadTo(server.url("/log"));
  EXPECT_EQ(server.requests(), 2u);
  EXPECT_LT(server.bytesSent(), kMostBytesTaken);
  expectBatchLostAfterOneRepeat();
}

TEST_F(HostileServerTest, AHundredMegabyteAnswerIsNotRead) {
  long before = peakResidentKilobytes();
  for (Behaviour behaviour : {Behaviour::kHugeAnnounced, Behaviour::kHugeUnannounced}) {
    SCOPED_TRACE(static_cast<int>(behaviour));
    TearDown();
    SetUp();
    HostileServer server(behaviour);
    uploadTo(server.url("/log"));
    EXPECT_EQ(server.requests(), 2u);
    EXPECT_LT(server.bytesSent(), kMostBytesTaken);
    expectBatchLostAfterOneRepeat();
  }
  // Neither answer was held in memory.
  EXPECT_LT(peakResidentKilobytes() - before, 48L * 1024);
}

TEST_F(HostileServerTest, HeadersThatNeverEndFailTheExchange) {
  HostileServer server(Behaviour::kEndlessHeaders);
  uploadTo(server.url("/log"));
  EXPECT_EQ(server.requests(), 2u);
  EXPECT_LT(server.bytesSent(), kMostBytesTaken);
  expectBatchLostAfterOneRepeat();
}

TEST_F(HostileServerTest, AStallLongerThanTheTimeLimitIsATransportFailure) {
  platform::setHttpTimeoutOverride(milliseconds(300));
  HostileServer server(Behaviour::kStall);
  auto started = std::chrono::steady_clock::now();
  uploadTo(server.url("/log"));
  auto took = std::chrono::steady_clock::now() - started;
  EXPECT_EQ(server.requests(), 2u);
  EXPECT_GE(took, milliseconds(2 * 300));
  expectBatchLostAfterOneRepeat();

  // The settings request: its one repeat, then the settings stay as they were.
  format().setLimitLogCount(7);
  format().setPushUrl(server.url("/settings"));
  center().getLogServerInfo();
  settle();
  EXPECT_EQ(server.requests(), 4u);
  EXPECT_EQ(format().limitLogCount(), 7);
  EXPECT_EQ(dispatcher_->pending(), 0u);
}

TEST_F(HostileServerTest, TheHostsCallReturnsBeforeTheExchange) {
  HostileServer server(Behaviour::kStall);
  format().setPushLogUrl(server.url("/log"));
  center().storeActionLog(strings({{"a_1", "item"}}));
  // The request waits on the global queue; the reporting thread is free.
  EXPECT_EQ(server.requests(), 0u);
  EXPECT_GT(dispatcher_->pending(), 0u);
}

TEST_F(HostileServerTest, RedirectsInALoopStopAfterSixteenHops) {
  HostileServer server(Behaviour::kRedirectLoop);
  uploadTo(server.url("/log"));
  EXPECT_EQ(server.requests(), 2u * 17u);  // each attempt: the request and 16 redirects
  expectBatchLostAfterOneRepeat();
}

TEST_F(HostileServerTest, AServerThatAcceptsAndClosesIsATransportFailure) {
  ClosingServer server;
  uploadTo(server.url("/log"));
  EXPECT_EQ(server.accepted(), 2u);
  expectBatchLostAfterOneRepeat();
}

std::string nestedArrays(int depth) {
  return std::string(static_cast<std::size_t>(depth), '[') +
         std::string(static_cast<std::size_t>(depth), ']');
}

TEST_F(HostileServerTest, DeeplyNestedJsonIsNoAnswer) {
  server_->script(ScriptedAnswer::json(nestedArrays(10000)));
  server_->script(ScriptedAnswer::json(nestedArrays(10000)));
  center().storeActionLog(strings({{"a_1", "item"}}));
  settle();
  EXPECT_EQ(server_->requestCount(), 2u);
  expectBatchLostAfterOneRepeat();

  // As a settings answer: every setting becomes nil, so the batch size is 0
  // and the timer, with N = 0, submits what is pending at its first firing.
  format().setLimitLogCount(1000);
  center().storeActionLog(strings({{"a_1", "pending"}}));
  server_->script(ScriptedAnswer::json(R"({"result":)" + nestedArrays(10000) + "}"));
  center().getLogServerInfo();
  settle();
  EXPECT_TRUE(format().push_interval_time().isNull());
  EXPECT_TRUE(format().current_time().isNull());
  EXPECT_EQ(format().limitLogCount(), 0);
  ASSERT_EQ(server_->requestCount(), 4u);
  EXPECT_EQ(sentItems(3), std::vector<std::string>{"pending"});
}

TEST_F(HostileServerTest, NumbersWhereStringsBelongGiveTheirIntegerReadings) {
  format().setPush_interval_time(Value("60000"));
  // "abc" reads as 0: every store reaches the batch size.
  server_->script(ScriptedAnswer::json(
      R"({"result":{"push_interval_number":"abc","push_interval_time":"abc"}})"));
  center().getLogServerInfo();
  settle();
  EXPECT_EQ(format().limitLogCount(), 0);
  EXPECT_EQ(dispatcher_->pending(), 0u);  // "abc" as the interval: N = 0, fired at once

  // 1e300 saturates: the batch size is never reached, and the countdown is
  // the longest there is.
  server_->script(ScriptedAnswer::json(
      R"({"result":{"push_interval_number":1e300,"push_interval_time":1e300}})"));
  center().getLogServerInfo();
  settle();
  EXPECT_EQ(format().limitLogCount(), INT64_MAX);
  std::size_t before = server_->requestCount();
  center().storeActionLog(strings({{"a_1", "held"}}));
  settle();
  dispatcher_->advance(std::chrono::hours(24 * 365));
  EXPECT_EQ(server_->requestCount(), before);
  EXPECT_EQ(center().actionLog().size(), 1u);

  // -5 compares as a huge unsigned batch size; -5 ms is an interval of 0 s.
  server_->script(
      ScriptedAnswer::json(R"({"result":{"push_interval_number":-5,"push_interval_time":-5}})"));
  center().getLogServerInfo();
  settle();
  EXPECT_EQ(format().limitLogCount(), -5);
  ASSERT_EQ(server_->requestCount(), before + 2);  // the settings, then the timer's submission
  EXPECT_EQ(sentItems(before + 1), std::vector<std::string>{"held"});
  center().storeActionLog(strings({{"a_1", "waits"}}));
  settle();
  EXPECT_EQ(center().actionLog().size(), 1u);
}

}  // namespace
}  // namespace qxlog::testing
