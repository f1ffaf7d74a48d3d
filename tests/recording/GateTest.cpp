#include <gtest/gtest.h>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

using std::chrono::seconds;

class GateTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    QXLogCenter::center().format().setLimitLogCount(1000);  // keep records queued
  }
  Array queue() { return QXLogCenter::center().actionLog(); }
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
    char* now = currentTime();
    EXPECT_STREQ(now, text);
    QXLogFree(now);
  }
}

}  // namespace
}  // namespace qxlog::testing
