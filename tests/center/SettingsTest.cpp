#include <gtest/gtest.h>

#include "QXLog/QXLogHelper.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class SettingsTest : public UploadTest {
 protected:
  void answerSettings(const std::string& json) {
    server_->script(ScriptedAnswer::json(json));
    center().getLogServerInfo();
    settle();
  }
  std::size_t logRequests() const {
    std::size_t count = 0;
    for (const ReceivedRequest& request : server_->requests()) count += request.path == "/log";
    return count;
  }
};

TEST_F(SettingsTest, AnswerSetsBatchSizeServerClockAndStartsTheTimer) {
  clock_->setWallSeconds(1700000000.25);
  answerSettings(
      R"({"result":{"push_interval_time":"1500","push_interval_number":20,"current_time":"50000"},"x":1})");
  ASSERT_EQ(server_->requestCount(), 1u);
  ReceivedRequest request = server_->requests()[0];
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.path, "/settings");
  EXPECT_EQ(request.query, "token=" + *QXLogHelper::tokenString(std::nullopt) + "&uid=device-1");

  EXPECT_EQ(format().push_interval_time(), Value("1500"));
  EXPECT_EQ(format().limitLogCount(), 20);
  EXPECT_EQ(format().current_time(), Value("50000"));
  EXPECT_DOUBLE_EQ(format().serverInfoUpdateTime(), 1700000000250.0);
  EXPECT_EQ(format().returnsSendTime(1700000001250.0), "51000");

  // N = 1: firings at 0 and 1 s; the second submits what is pending.
  center().storeActionLog(strings({{"a_1", "pending"}}));
  dispatcher_->advance(milliseconds(999));
  EXPECT_EQ(logRequests(), 0u);
  dispatcher_->advance(milliseconds(1));
  EXPECT_EQ(logRequests(), 1u);
}

TEST_F(SettingsTest, AnswerWithoutResultLeavesNilValuesAndSubmitsAtOnce) {
  format().setLimitLogCount(50);
  center().setActionLog(Array{Value(strings({{"a_1", "pending"}}))});
  server_->script({500, "text/html", "<h1>down</h1>"});  // the status is not examined
  center().getLogServerInfo();
  settle();
  EXPECT_TRUE(format().push_interval_time().isNull());
  EXPECT_TRUE(format().current_time().isNull());
  EXPECT_EQ(format().limitLogCount(), 0);
  EXPECT_EQ(logRequests(), 1u);  // a timer with N = 0 submits at its first firing
}

TEST_F(SettingsTest, ValuesOfOtherKindsAreReadAsIntegers) {
  answerSettings(R"({"result":{"push_interval_time":60000,"push_interval_number":"abc"}})");
  EXPECT_EQ(format().limitLogCount(), 0);
  EXPECT_EQ(format().push_interval_time(), Value(int64_t{60000}));
  answerSettings(R"({"result":{"push_interval_time":"x","push_interval_number":1e300}})");
  EXPECT_EQ(format().limitLogCount(), INT64_MAX);
  answerSettings(R"({"result":{"push_interval_number":-5,"current_time":1700000000000}})");
  EXPECT_EQ(format().limitLogCount(), -5);
  EXPECT_EQ(format().current_time(), Value(int64_t{1700000000000}));
}

TEST_F(SettingsTest, AFailedRequestIsRepeatedOnceInTheLifeOfTheProcess) {
  ClosingServer closing;
  format().setPushUrl(closing.url("/settings"));
  center().getLogServerInfo();
  settle();
  EXPECT_EQ(closing.accepted(), 2u);
  center().getLogServerInfo();
  settle();
  EXPECT_EQ(closing.accepted(), 3u);
  EXPECT_EQ(format().limitLogCount(), 1);  // earlier settings stay in force
  EXPECT_EQ(format().push_interval_time(), Value("60000"));
  EXPECT_EQ(dispatcher_->pending(), 0u);  // and no timer was started
}

TEST_F(SettingsTest, AStringThatIsNotAUrlCountsAsAFailedRequest) {
  format().setPushUrl(std::nullopt);  // "(null)?token=..." is no URL
  center().getLogServerInfo();
  settle();
  ClosingServer closing;  // the one repeat is spent
  format().setPushUrl(closing.url("/settings"));
  center().getLogServerInfo();
  settle();
  EXPECT_EQ(closing.accepted(), 1u);
}

class PushTimerTest : public SettingsTest {
 protected:
  void SetUp() override {
    SettingsTest::SetUp();
    format().setLimitLogCount(1000);
  }
  void queue(const std::string& item) { center().storeActionLog(strings({{"a_1", item}})); }
};

TEST_F(PushTimerTest, AMinuteIntervalSubmitsAfterAnHour) {
  queue("hourly");
  center().startTime(60);
  dispatcher_->advance(seconds(3599));
  EXPECT_EQ(logRequests(), 0u);
  dispatcher_->advance(seconds(1));
  ASSERT_EQ(logRequests(), 1u);
  EXPECT_EQ(sentItems(0), std::vector<std::string>{"hourly"});
  EXPECT_TRUE(center().actionLog().empty());
}

TEST_F(PushTimerTest, ZeroAndNegativeIntervalsSubmitAtOnce) {
  for (int32_t n : {0, -5, INT32_MIN}) {
    queue("now" + std::to_string(n));
    center().startTime(n);
    settle();
  }
  EXPECT_EQ(logRequests(), 3u);
}

TEST_F(PushTimerTest, EachCountdownSubmitsOnce) {
  center().startTime(1);  // submits at 1 s
  center().startTime(2);  // submits at 4 s
  queue("first");
  dispatcher_->advance(seconds(1));
  queue("second");
  dispatcher_->advance(seconds(2));
  EXPECT_EQ(logRequests(), 1u);
  dispatcher_->advance(seconds(1));
  ASSERT_EQ(logRequests(), 2u);
  EXPECT_EQ(sentItems(1), std::vector<std::string>{"second"});
  dispatcher_->advance(seconds(3600));
  EXPECT_EQ(logRequests(), 2u);  // both countdowns are over
}

TEST_F(PushTimerTest, TheTimerFoldsWaitingPlayRecordsBeforeSubmitting) {
  center().setCurrentPlayHeader(strings({{"a_t", "6"}, {"a_7", "channel"}}));
  center().storePlayLog(strings({{"p_2", "3"}}));
  center().startTime(0);
  settle();
  ASSERT_EQ(logRequests(), 1u);
  Array sent = records(0);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(field(sent[0], "a_7"), "channel");
  EXPECT_NE(sent[0].asDictionary()->find("p"), nullptr);
  EXPECT_TRUE(center().playActionLog().empty());
}

}  // namespace
}  // namespace qxlog::testing
