// Play header, play-action and trailer records.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

class PlayRecordsTest : public LibraryTest {
 protected:
  QXLogMessageFormat& format() { return QXLogCenter::center().format(); }

  // A play-action record of the given type and start time.
  Dictionary action(const NullableString& type, const NullableString& start,
                    const NullableString& playTime = "0") {
    return format().playActionLog(type, "playing", start, "e", "10", "20", playTime);
  }
};

TEST_F(PlayRecordsTest, HeaderDefaultsOnlyTypeAndPcdnToOne) {
  Dictionary header =
      format().playLog(std::nullopt, std::nullopt, std::nullopt, false, std::nullopt, std::nullopt);
  EXPECT_EQ(field(header, "a_t"), "1");
  EXPECT_EQ(field(header, "a_9"), "1");
  EXPECT_EQ(field(header, "a_1"), "");
  EXPECT_EQ(field(header, "a_6"), "");
  EXPECT_EQ(field(header, "a_7"), "");
  EXPECT_EQ(field(header, "a_8"), "");
  // An empty value is not nil.
  Dictionary empty = format().playLog("", "", "", false, "", "");
  EXPECT_EQ(field(empty, "a_t"), "");
  EXPECT_EQ(field(empty, "a_9"), "");
  format().setNetworkState("4g");
  EXPECT_EQ(field(format().playLog("", "", "", false, "0", "6"), "a_4"), "4g");
}

TEST_F(PlayRecordsTest, DownloadedItemPlaysFromLocalhostWithThePathAsGiven) {
  Dictionary local = format().playLog("/var/media/a b.mp4", "cache", "m2", true, "0", "1");
  EXPECT_EQ(field(local, "a_1"), "localhost");
  EXPECT_EQ(field(local, "a_8"), "/var/media/a b.mp4");
  // Even an http address is neither encoded nor looked up.
  Dictionary http = format().playLog("http://unresolvable.invalid/a b", "c", "m", true, "0", "1");
  EXPECT_EQ(field(http, "a_1"), "localhost");
  EXPECT_EQ(field(http, "a_8"), "http://unresolvable.invalid/a b");
  EXPECT_EQ(field(format().playLog(std::nullopt, "c", "m", true, "0", "1"), "a_8"), "");
}

TEST_F(PlayRecordsTest, OnlyHttpAddressesAreRecorded) {
  for (const char* url : {"rtmp://localhost/live", "/var/media/a.mp4", "Http://localhost/a"}) {
    Dictionary header = format().playLog(url, "s", "m", false, "0", "1");
    EXPECT_EQ(field(header, "a_1"), "") << url;
    EXPECT_EQ(field(header, "a_8"), "") << url;
  }
  Dictionary secure = format().playLog("https://localhost/a", "s", "m", false, "0", "1");
  EXPECT_EQ(field(secure, "a_8"), "https://localhost/a");
  EXPECT_EQ(field(secure, "a_1"), "127.0.0.1");
}

TEST_F(PlayRecordsTest, PlayActionRecordKeysAndValues) {
  format().setCurrent_time(Value("9000"));
  format().setServerInfoUpdateTime(1700000000000.0 - 500.0);
  EXPECT_EQ(json(format().playActionLog("4", "playing", "11", "12", "13", "14", "1000")),
            R"({"p_0":"9500","p_1":"1","p_2":"4","p_3":"playing","p_4":"11","p_5":"12",)"
            R"("p_6":"13","p_7":"14","p_8":"3000"})");
  EXPECT_TRUE(console_->contains(
      "Ostra->~~opetype(4)~~totaltime(3000)~buffer_start_time(11)~~~~recordTimestring(9500)"));
}

TEST_F(PlayRecordsTest, PlayTimeIsOffsetBy2000AndFlooredAtZero) {
  const std::pair<NullableString, const char*> cases[] = {
      {"1000", "3000"}, {"0", "2000"},  {"abc", "2000"},  {std::nullopt, "2000"},
      {"-500", "1500"}, {"-9000", "0"}, {" 42s", "2042"},
  };
  for (const auto& [played, expected] : cases) {
    EXPECT_EQ(field(action("1", "a", played), "p_8"), expected) << played.value_or("(nil)");
  }
  EXPECT_EQ(field(action("1", "a", "9223372036854775807"), "p_8"), "-9223372036854773809");
}

TEST_F(PlayRecordsTest, NilArgumentsBecomeEmptyAndTraceAsNull) {
  Dictionary record = format().playActionLog(std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                                             std::nullopt, std::nullopt, std::nullopt);
  for (const char* key : {"p_2", "p_3", "p_4", "p_5", "p_6", "p_7"}) {
    EXPECT_EQ(field(record, key), "") << key;
  }
  EXPECT_EQ(console_->countStartingWith("Ostra->~~opetype((null))~~totaltime(2000)~buffer_start_"
                                        "time((null))~~~~recordTimestring(1700000000000)"),
            1u);
}

TEST_F(PlayRecordsTest, RepeatedBufferingIsFilteredOut) {
  EXPECT_EQ(action("5", "A").size(), 9u);
  std::size_t tracesBefore = console_->countStartingWith("Ostra->");
  EXPECT_TRUE(action("5", "A").empty());
  EXPECT_EQ(console_->countStartingWith("Ostra->"), tracesBefore);  // no trace when filtered

  // Other types are never filtered, but they move the remembered start on.
  EXPECT_EQ(action("4", "B").size(), 9u);
  EXPECT_EQ(action("4", "B").size(), 9u);
  EXPECT_EQ(action("5", "B").size(), 0u);

  EXPECT_EQ(action("5", "A").size(), 9u);
  EXPECT_EQ(action("3", "B").size(), 9u);
  EXPECT_EQ(action("5", "A").size(), 9u);
  // A trailer leaves the remembered start alone.
  format().playTrailerLog("5", "s", "B", "e", "1", "2", "3");
  EXPECT_TRUE(action("5", "A").empty());
}

TEST_F(PlayRecordsTest, NilStartTimeNeverMatches) {
  EXPECT_EQ(action("5", std::nullopt).size(), 9u);
  EXPECT_EQ(action("5", std::nullopt).size(), 9u);
  // nil also replaces the remembered start.
  EXPECT_EQ(action("5", "A").size(), 9u);
  EXPECT_EQ(action("4", std::nullopt).size(), 9u);
  EXPECT_EQ(action("5", "A").size(), 9u);
  // An empty start time is a value like any other.
  EXPECT_EQ(action("5", "").size(), 9u);
  EXPECT_TRUE(action("5", "").empty());
}

TEST_F(PlayRecordsTest, TrailerTotalIsSecondsTimesThousandIn32Bits) {
  auto total = [&](const NullableString& seconds) {
    return field(format().playTrailerLog("t", "s", "1", "2", "3", "4", seconds), "p_8");
  };
  const std::pair<NullableString, const char*> cases[] = {
      {"12", "12000"},
      {"1", "1000"},
      {"0", "0"},
      {"-3", "0"},
      {"abc", "0"},
      {std::nullopt, "0"},
      {"2147483", "2147483000"},
      {"2147484", "-2147483296"},
      {"4294968", "704"},
      {"99999999999", "-1000"},  // saturates at INT32_MAX first
  };
  for (const auto& [seconds, expected] : cases) {
    EXPECT_EQ(total(seconds), expected) << seconds.value_or("(nil)");
  }
}

TEST_F(PlayRecordsTest, TrailerRecordAndTrace) {
  format().setCurrent_time(Value("7"));
  format().setServerInfoUpdateTime(1700000000000.0);
  EXPECT_EQ(json(format().playTrailerLog("t", std::nullopt, "1", "2", "3", "4", "5")),
            R"({"p_0":"7","p_1":"1","p_2":"t","p_3":"","p_4":"1","p_5":"2","p_6":"3",)"
            R"("p_7":"4","p_8":"5000"})");
  EXPECT_TRUE(console_->contains("--播放小视频日志-t----(null)---1----2---3--4---5000"));
}

}  // namespace
}  // namespace qxlog::testing
