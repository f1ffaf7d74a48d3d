// Launch, network and action records.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

class ActionRecordsTest : public LibraryTest {
 protected:
  QXLogMessageFormat& format() { return QXLogCenter::center().format(); }
};

TEST_F(ActionRecordsTest, LaunchRecordHasEveryKeyInOrderWithTheLastTwoEmpty) {
  clock_->setWallSeconds(1700000000.9);
  // A server offset must not move the launch time, which is whole seconds.
  format().setCurrent_time(Value("5"));
  format().setServerInfoUpdateTime(1000.0);
  Dictionary record = format().launchLog("cold", "1700000000123", "push-7");
  const std::string sizes =
      "\"a_7\":\"" + field(record, "a_7") + "\",\"a_8\":\"" + field(record, "a_8") + "\"";
  EXPECT_EQ(json(record), R"({"a_t":"0","a_0":"1700000000000","a_1":"cold","a_2":"1700000000123",)"
                          R"("a_3":"push-7","a_4":")" +
                              QXLogHelper::getIPAddress() + R"(","a_5":"0","a_6":"",)" + sizes +
                              R"(,"a_9":"","a_10":""})");

  // Disk sizes are gigabytes in six significant digits.
  const double gib = 1024.0 * 1024.0 * 1024.0;
  for (auto [key, bytes] : {std::pair{"a_7", QXLogHelper::totalDiskSpace()},
                            std::pair{"a_8", QXLogHelper::freeDiskSpace()}}) {
    std::string text = field(record, key);
    ASSERT_FALSE(text.empty()) << key;
    ASSERT_LE(text.size(), 12u) << key << " " << text;  // "%g" never writes long fractions
    // Free space may move between the two readings; the figure stays close.
    EXPECT_NEAR(std::strtod(text.c_str(), nullptr), bytes / gib, bytes / gib * 1e-3 + 1e-5) << key;
  }
}

TEST_F(ActionRecordsTest, LaunchNilValuesBecomeEmptyAndContextIsRead) {
  Dictionary empty = format().launchLog(std::nullopt, std::nullopt, std::nullopt);
  for (const char* key : {"a_1", "a_2", "a_3", "a_6"}) EXPECT_EQ(field(empty, key), "") << key;
  format().setCity("Hangzhou");
  format().setNetworkState("wifi");
  Dictionary record = format().launchLog("x", "y", "z");
  EXPECT_EQ(field(record, "a_5"), "wifi");
  EXPECT_EQ(field(record, "a_6"), "Hangzhou");
}

TEST_F(ActionRecordsTest, NetworkRecordStoresItsFirstArgumentLast) {
  EXPECT_EQ(json(format().networkLog("u", "-5", "e")),
            R"({"a_t":"7","a_0":"1700000000000","a_1":"-5","a_2":"e","a_3":"u"})");
  EXPECT_EQ(field(format().networkLog("u", std::nullopt, std::nullopt), "a_2"), "");
}

TEST_F(ActionRecordsTest, ActionRecordCorrectsOnlyTheSendTime) {
  clock_->setWallSeconds(1700000000.4567);
  // The server said 50000 when the local clock read 1700000000000 - 1000.
  format().setCurrent_time(Value("50000"));
  format().setServerInfoUpdateTime(1699999999000.0);
  EXPECT_EQ(json(format().actionLog("tap", "1700000000001", std::nullopt)),
            R"({"a_t":"2","a_0":"51456","a_1":"tap","a_2":"1700000000001",)"
            R"("a_3":"1700000000456","a_4":"0","a_5":""})");
}

}  // namespace
}  // namespace qxlog::testing
