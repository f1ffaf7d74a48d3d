// Launch, network and action records.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

std::vector<std::string> keysOf(const Dictionary& record) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : record) keys.push_back(key);
  return keys;
}

class ActionRecordsTest : public LibraryTest {
 protected:
  QXLogMessageFormat& format() { return QXLogCenter::center().format(); }
};

TEST_F(ActionRecordsTest, LaunchRecordHasEveryKeyInOrderWithTheLastTwoEmpty) {
  Dictionary record = format().launchLog("cold", "1700000000123", "push-7");
  EXPECT_EQ(keysOf(record), (std::vector<std::string>{"a_t", "a_0", "a_1", "a_2", "a_3", "a_4",
                                                      "a_5", "a_6", "a_7", "a_8", "a_9", "a_10"}));
  EXPECT_EQ(field(record, "a_t"), "0");
  EXPECT_EQ(field(record, "a_1"), "cold");
  EXPECT_EQ(field(record, "a_2"), "1700000000123");
  EXPECT_EQ(field(record, "a_3"), "push-7");
  EXPECT_EQ(field(record, "a_4"), QXLogHelper::getIPAddress());
  EXPECT_EQ(field(record, "a_5"), "0");  // the initial network state
  EXPECT_EQ(field(record, "a_9"), "");
  EXPECT_EQ(field(record, "a_10"), "");
}

TEST_F(ActionRecordsTest, LaunchTimeIsWholeSecondsOnTheLocalClock) {
  clock_->setWallSeconds(1700000000.9);
  // A server offset must not move the launch time.
  format().setCurrent_time(Value("5"));
  format().setServerInfoUpdateTime(1000.0);
  EXPECT_EQ(field(format().launchLog("x", "y", "z"), "a_0"), "1700000000000");
}

TEST_F(ActionRecordsTest, LaunchNilValuesBecomeEmptyAndContextIsRead) {
  Dictionary empty = format().launchLog(std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(field(empty, "a_1"), "");
  EXPECT_EQ(field(empty, "a_2"), "");
  EXPECT_EQ(field(empty, "a_3"), "");
  EXPECT_EQ(field(empty, "a_6"), "");  // no city set

  format().setCity("Hangzhou");
  format().setNetworkState("wifi");
  Dictionary record = format().launchLog("x", "y", "z");
  EXPECT_EQ(field(record, "a_5"), "wifi");
  EXPECT_EQ(field(record, "a_6"), "Hangzhou");
}

TEST_F(ActionRecordsTest, LaunchDiskSizesAreGigabytesInSixSignificantDigits) {
  Dictionary record = format().launchLog("x", "y", "z");
  const double gib = 1024.0 * 1024.0 * 1024.0;
  for (auto [key, bytes] : {std::pair{"a_7", QXLogHelper::totalDiskSpace()},
                            std::pair{"a_8", QXLogHelper::freeDiskSpace()}}) {
    std::string text = field(record, key);
    ASSERT_FALSE(text.empty()) << key;
    ASSERT_LE(text.size(), 12u) << key << " " << text;  // "%g" never writes long fractions
    double expected = bytes / gib;
    // Free space may move between the two readings; the figure stays close.
    EXPECT_NEAR(std::strtod(text.c_str(), nullptr), expected, expected * 1e-3 + 1e-5) << key;
  }
}

TEST_F(ActionRecordsTest, NetworkRecordStoresItsFirstArgumentLast) {
  Dictionary record = format().networkLog("u", "-5", "e");
  EXPECT_EQ(keysOf(record), (std::vector<std::string>{"a_t", "a_0", "a_1", "a_2", "a_3"}));
  EXPECT_EQ(field(record, "a_t"), "7");
  EXPECT_EQ(field(record, "a_0"), "1700000000000");
  EXPECT_EQ(field(record, "a_1"), "-5");
  EXPECT_EQ(field(record, "a_2"), "e");
  EXPECT_EQ(field(record, "a_3"), "u");
  EXPECT_EQ(field(format().networkLog("u", std::nullopt, std::nullopt), "a_2"), "");
}

TEST_F(ActionRecordsTest, ActionRecordCorrectsOnlyTheSendTime) {
  clock_->setWallSeconds(1700000000.4567);
  // The server said 50000 when the local clock read 1700000000000 - 1000.
  format().setCurrent_time(Value("50000"));
  format().setServerInfoUpdateTime(1699999999000.0);
  Dictionary record = format().actionLog("tap", "1700000000001", std::nullopt);
  EXPECT_EQ(keysOf(record),
            (std::vector<std::string>{"a_t", "a_0", "a_1", "a_2", "a_3", "a_4", "a_5"}));
  EXPECT_EQ(field(record, "a_t"), "2");
  EXPECT_EQ(field(record, "a_0"), "51456");
  EXPECT_EQ(field(record, "a_1"), "tap");
  EXPECT_EQ(field(record, "a_2"), "1700000000001");
  EXPECT_EQ(field(record, "a_3"), "1700000000456");
  EXPECT_EQ(field(record, "a_4"), "0");
  EXPECT_EQ(field(record, "a_5"), "");
}

}  // namespace
}  // namespace qxlog::testing
