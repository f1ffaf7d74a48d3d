#include <gtest/gtest.h>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

using std::chrono::seconds;

class GateTest : public LibraryTest {
 protected:
  std::size_t queued() { return QXLogCenter::center().actionLog().size(); }
  void SetUp() override {
    LibraryTest::SetUp();
    QXLogCenter::center().format().setLimitLogCount(1000);  // keep records queued
  }
};

TEST_F(GateTest, ReportWaitsUntilTheFirstRetryAfterReadiness) {
  const double start = clock_->wallSeconds();
  recordActionLog("tap", "3");
  EXPECT_EQ(queued(), 0u);
  EXPECT_EQ(dispatcher_->pending(), 1u);

  dispatcher_->advance(seconds(5));  // first retry: still not ready
  EXPECT_EQ(queued(), 0u);
  EXPECT_EQ(dispatcher_->pending(), 1u);

  dispatcher_->advance(seconds(2));
  logEnvReady(true);  // at 7 s
  EXPECT_EQ(queued(), 0u);

  dispatcher_->advance(seconds(2));  // 9 s
  EXPECT_EQ(queued(), 0u);
  dispatcher_->advance(seconds(1));  // 10 s: the second retry runs the body
  ASSERT_EQ(queued(), 1u);
  EXPECT_EQ(dispatcher_->pending(), 0u);

  // The record carries the time at which it was built, not that of the call.
  Value record = QXLogCenter::center().actionLog().front();
  EXPECT_EQ(field(record, "a_1"), "tap");
  EXPECT_EQ(field(record, "a_5"), "3");
  std::string tenSeconds = std::to_string(static_cast<uint64_t>((start + 10) * 1000));
  EXPECT_EQ(field(record, "a_2"), tenSeconds);
  EXPECT_EQ(field(record, "a_3"), tenSeconds);
}

TEST_F(GateTest, ReadyReportsRunAtOnceOnTheCallersThread) {
  logEnvReady(true);
  recordActionLog("tap", nullptr);
  EXPECT_EQ(queued(), 1u);
  EXPECT_EQ(dispatcher_->pending(), 0u);
  EXPECT_EQ(field(QXLogCenter::center().actionLog().front(), "a_5"), "");
}

TEST_F(GateTest, NotReadyAgainDefersLaterReports) {
  logEnvReady(true);
  logEnvReady(true);  // idempotent
  recordActionLog("first", "");
  logEnvReady(false);
  recordActionLog("second", "");
  EXPECT_EQ(queued(), 1u);
  dispatcher_->advance(seconds(60));
  EXPECT_EQ(queued(), 1u);
  EXPECT_EQ(dispatcher_->pending(), 1u);  // still retrying, one task at a time
  logEnvReady(true);
  dispatcher_->advance(seconds(5));
  EXPECT_EQ(queued(), 2u);
}

TEST_F(GateTest, DeferredReportsRunInTheOrderOfTheirTicks) {
  recordActionLog("early", "");
  dispatcher_->advance(seconds(3));
  recordActionLog("late", "");
  logEnvReady(true);
  recordActionLog("ready", "");  // overtakes both deferred reports
  dispatcher_->advance(seconds(10));
  Array queue = QXLogCenter::center().actionLog();
  ASSERT_EQ(queue.size(), 3u);
  EXPECT_EQ(field(queue[0], "a_1"), "ready");
  EXPECT_EQ(field(queue[1], "a_1"), "early");
  EXPECT_EQ(field(queue[2], "a_1"), "late");
}

TEST_F(GateTest, DeferredCallsKeepCopiesOfTheirArguments) {
  char buffer[] = "mutable";
  recordActionLog(buffer, buffer);
  buffer[0] = 'X';
  logEnvReady(true);
  dispatcher_->advance(seconds(5));
  ASSERT_EQ(queued(), 1u);
  EXPECT_EQ(field(QXLogCenter::center().actionLog().front(), "a_1"), "mutable");
}

TEST_F(GateTest, EmptyNetworkItemIsDroppedBeforeTheGate) {
  for (bool ready : {false, true}) {
    logEnvReady(ready);
    recordNetworkLog(nullptr, 5, "e");
    recordNetworkLog("", 5, "e");
    EXPECT_EQ(dispatcher_->pending(), 0u);
    EXPECT_EQ(queued(), 0u);
  }
  recordNetworkLog(" ", -5, "e");  // a blank is a value
  ASSERT_EQ(queued(), 1u);
  Value record = QXLogCenter::center().actionLog().front();
  EXPECT_EQ(field(record, "a_t"), "7");
  EXPECT_EQ(field(record, "a_1"), "-5");
  EXPECT_EQ(field(record, "a_2"), "e");
  EXPECT_EQ(field(record, "a_3"), " ");
}

TEST_F(GateTest, EmptyDownloadUrlIsDroppedBeforeTheGate) {
  for (bool ready : {false, true}) {
    logEnvReady(ready);
    recordDownLog("m1", nullptr, "name", "10", "/p", "1");
    recordDownLog("m1", "", "name", "10", "/p", "1");
    EXPECT_EQ(dispatcher_->pending(), 0u);
    EXPECT_EQ(queued(), 0u);
  }
  logEnvReady(false);
  recordDownLog("", "ftp://x", "", "", "", "");  // only the URL is tested
  EXPECT_EQ(dispatcher_->pending(), 1u);
}

TEST_F(GateTest, CurrentTimeTruncatesToTheMillisecond) {
  clock_->setWallSeconds(1700000000.9999);
  char* now = currentTime();
  EXPECT_STREQ(now, "1700000000999");
  QXLogFree(now);
  clock_->setWallSeconds(1700000000.1239);
  now = currentTime();
  EXPECT_STREQ(now, "1700000000123");
  QXLogFree(now);
}

TEST(VersionTest, ConstantsHaveTheirPublishedValues) {
  EXPECT_EQ(QXLogVersionNumber, 1.0);
  const char* text = reinterpret_cast<const char*>(QXLogVersionString);
  EXPECT_STREQ(text, "@(#)PROGRAM:QXLog  PROJECT:Pods-1\n");
}

}  // namespace
}  // namespace qxlog::testing
