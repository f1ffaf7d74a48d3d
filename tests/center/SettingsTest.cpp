// The settings request and its answer: batch size, server clock and the
// countdowns that submit what is queued.
#include "QXLog/QXLogHelper.h"
#include "tests/support/HostileServer.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class SettingsTest : public UploadTest {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    format().setLimitLogCount(1000);
  }
  void answerSettings(const ScriptedAnswer& answer) {
    server_->script(answer);
    center().getLogServerInfo();
    settle();
  }
  void queue(const std::string& item) { center().storeActionLog(strings({{"a_1", item}})); }
  std::size_t logRequests() const {
    std::size_t count = 0;
    for (const ReceivedRequest& request : server_->requests()) count += request.path == "/log";
    return count;
  }
};

TEST_F(SettingsTest, AnswerSetsBatchSizeServerClockAndStartsTheTimer) {
  clock_->setWallSeconds(1700000000.25);
  answerSettings(ScriptedAnswer::json(
      R"({"result":{"push_interval_time":"1500","push_interval_number":20,"current_time":"50000"},"x":1})"));
  ASSERT_EQ(server_->requestCount(), 1u);
  ReceivedRequest request = server_->requests()[0];
  EXPECT_EQ(request.method + " " + request.path + "?" + request.query,
            "GET /settings?token=" + *QXLogHelper::tokenString(std::nullopt) + "&uid=device-1");
  EXPECT_EQ(format().push_interval_time(), Value("1500"));
  EXPECT_EQ(format().limitLogCount(), 20);
  EXPECT_EQ(format().current_time(), Value("50000"));
  EXPECT_DOUBLE_EQ(format().serverInfoUpdateTime(), 1700000000250.0);
  EXPECT_EQ(format().returnsSendTime(1700000001250.0), "51000");

  // N = 1: firings at 0 and 1 s; the second submits what is pending.
  queue("pending");
  dispatcher_->advance(milliseconds(999));
  EXPECT_EQ(logRequests(), 0u);
  dispatcher_->advance(milliseconds(1));
  EXPECT_EQ(logRequests(), 1u);
}

TEST_F(SettingsTest, AnswersOfOtherShapesGiveTheirIntegerReadings) {
  const struct {
    ScriptedAnswer answer;
    Value interval;      // stored as given
    int64_t limit;       // its integer reading
    bool submitsAtOnce;  // N = 0: the timer submits at its first firing
    std::size_t queuedAfterAStore;
  } cases[] = {
      // No result (the status is not examined): every value is nil.
      {{500, "text/html", "<h1>down</h1>"}, Value(), 0, true, 0},
      {ScriptedAnswer::json(
           R"({"result":{"push_interval_number":"abc","push_interval_time":"abc"}})"),
       Value("abc"), 0, true, 0},
      // Saturated: the batch size is never reached, the countdown the longest there is.
      {ScriptedAnswer::json(
           R"({"result":{"push_interval_number":1e300,"push_interval_time":1e300}})"),
       Value(1e300), INT64_MAX, false, 2},
      // -5 compares as a huge unsigned batch size; -5 ms is an interval of 0 s.
      {ScriptedAnswer::json(R"({"result":{"push_interval_number":-5,"push_interval_time":-5}})"),
       Value(int64_t{-5}), -5, true, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer.body);
    TearDown();
    SetUp();
    queue("pending");
    answerSettings(c.answer);
    EXPECT_EQ(format().push_interval_time(), c.interval);
    EXPECT_EQ(format().current_time(), Value());
    EXPECT_EQ(format().limitLogCount(), c.limit);
    ASSERT_EQ(logRequests(), c.submitsAtOnce ? 1u : 0u);
    if (c.submitsAtOnce) {
      EXPECT_EQ(sentItems(1), Items{"pending"});
    }
    dispatcher_->advance(std::chrono::hours(24 * 365));
    queue("later");
    settle();
    EXPECT_EQ(center().actionLog().size(), c.queuedAfterAStore);
  }
}

// A server clock that is not a number keeps its reading (leading digits, else
// 0); one beyond any clock (2^53 ms and more either way, saturated readings
// included) is no answer for the correction: the send time is the local time.
TEST_F(SettingsTest, AServerClockBeyondAnyClockLeavesTheSendTimeLocal) {
  clock_->setWallSeconds(1700000000.0);
  // The server's "current_time" as JSON, then the send time 1.5 s after the answer;
  // the local time when none is given.
  for (std::string c : {R"("50000" 51500)", R"("abc" 1500)", "0 1500", R"("NaN" 1500)",
                        R"("-nan" 1500)", R"("1e30" 1501)", "9007199254740992 9007199254742492",
                        "-9007199254740992 -9007199254739492", "9007199254740993",
                        "-9223372036854775808", R"("-9223372036854775808")", "9223372036854775807",
                        "9223372036854775808", R"("99999999999999999999")", "1e30", "-1e30"}) {
    SCOPED_TRACE(c);
    const std::size_t space = c.find(' ');
    answerSettings(
        ScriptedAnswer::json(R"({"result":{"current_time":)" + c.substr(0, space) + "}}"));
    EXPECT_EQ(format().returnsSendTime(1700000001500.0),
              space == std::string::npos ? "1700000001500" : c.substr(space + 1));
  }
  // A local time far from the answer's is left uncorrected too.
  answerSettings(ScriptedAnswer::json(R"({"result":{"current_time":"50000"}})"));
  EXPECT_EQ(format().returnsSendTime(1e30), "9223372036854775807");
  EXPECT_EQ(format().returnsSendTime(-1e30), "-9223372036854775808");
}

TEST_F(SettingsTest, AFailedRequestIsRepeatedOnceInTheLifeOfTheProcess) {
  // A string that is not a URL ("(null)?token=...") fails as a closed connection does.
  for (bool url : {true, false}) {
    TearDown();
    SetUp();
    HostileServer closing(HostileServer::Behaviour::kClose);
    format().setPushUrl(url ? NullableString(closing.url("/settings")) : std::nullopt);
    center().getLogServerInfo();
    settle();
    format().setPushUrl(closing.url("/settings"));
    center().getLogServerInfo();  // the one repeat is spent: no second one
    settle();
    EXPECT_EQ(closing.requests(), url ? 3u : 1u);
  }
  EXPECT_EQ(format().limitLogCount(), 1000);  // earlier settings stay in force
  EXPECT_EQ(format().push_interval_time(), Value("60000"));
  EXPECT_EQ(dispatcher_->pending(), 0u);  // and no timer was started
}

TEST_F(SettingsTest, ZeroAndNegativeIntervalsSubmitAtOnceFoldingWaitingPlays) {
  center().setCurrentPlayHeader(strings({{"a_t", "6"}, {"a_7", "channel"}}));
  center().storePlayLog(strings({{"p_2", "3"}}));
  for (int32_t n : {0, -5, INT32_MIN}) {
    queue("now" + std::to_string(n));
    center().startTime(n);
    settle();
  }
  ASSERT_EQ(logRequests(), 3u);
  EXPECT_EQ(json(*records(0).at(1).asDictionary()),
            R"({"a_t":"6","a_7":"channel","p":[{"p_2":"3"}]})");
  EXPECT_TRUE(center().playActionLog().empty());
}

TEST_F(SettingsTest, EachCountdownSubmitsOnceAfterTheSquareOfItsInterval) {
  center().startTime(1);   // submits at 1 s
  center().startTime(2);   // at 4 s
  center().startTime(60);  // at an hour
  queue("first");
  dispatcher_->advance(seconds(1));
  queue("second");
  dispatcher_->advance(seconds(2));
  EXPECT_EQ(logRequests(), 1u);
  dispatcher_->advance(seconds(1));
  ASSERT_EQ(logRequests(), 2u);
  EXPECT_EQ(sentItems(1), std::vector<std::string>{"second"});
  queue("hourly");
  dispatcher_->advance(seconds(3595));
  EXPECT_EQ(logRequests(), 2u);
  dispatcher_->advance(seconds(1));
  ASSERT_EQ(logRequests(), 3u);
  EXPECT_EQ(sentItems(2), std::vector<std::string>{"hourly"});
  EXPECT_TRUE(center().actionLog().empty());
  dispatcher_->advance(seconds(3600));
  EXPECT_EQ(logRequests(), 3u);  // every countdown is over
}

}  // namespace
}  // namespace qxlog::testing
