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
  EXPECT_EQ(
      json(header),
      R"({"a_t":"1","a_1":"","a_3":"","a_4":"0","a_5":"0","a_6":"","a_7":"","a_8":"","a_9":"1"})");
  // An empty value is not nil.
  EXPECT_EQ(
      json(format().playLog("", "", "", false, "", "")),
      R"({"a_t":"","a_1":"","a_3":"","a_4":"0","a_5":"0","a_6":"","a_7":"","a_8":"","a_9":""})");
  format().setNetworkState("4g");
  EXPECT_EQ(field(format().playLog("", "", "", false, "0", "6"), "a_4"), "4g");
}

TEST_F(PlayRecordsTest, OnlyHttpAddressesAreRecordedAndDownloadsPlayFromLocalhost) {
  const struct {
    NullableString url;
    bool downloaded;
    const char* host;     // a_1
    const char* address;  // a_8
  } cases[] = {
      {"https://localhost/a", false, "127.0.0.1", "https://localhost/a"},
      {"rtmp://localhost/live", false, "", ""},
      {"/var/media/a.mp4", false, "", ""},
      {"Http://localhost/a", false, "", ""},
      // A downloaded item: the path as given, neither encoded nor looked up.
      {"/var/media/a b.mp4", true, "localhost", "/var/media/a b.mp4"},
      {"http://unresolvable.invalid/a b", true, "localhost", "http://unresolvable.invalid/a b"},
      {std::nullopt, true, "localhost", ""}};
  for (const auto& c : cases) {
    Dictionary header = format().playLog(c.url, "s", "m", c.downloaded, "0", "1");
    EXPECT_EQ(field(header, "a_1") + "|" + field(header, "a_8"),
              std::string(c.host) + "|" + c.address)
        << c.url.value_or("(nil)");
  }
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
      {"1000", "3000"}, {"0", "2000"},  {"abc", "2000"}, {std::nullopt, "2000"},
      {"-500", "1500"}, {"-9000", "0"}, {" 42s", "2042"}};
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
  // A buffering report (type 5) that repeats the remembered start time is
  // dropped, untraced. Every other type is kept but moves the remembered start
  // on; nil never matches and is remembered; an empty start is a value.
  const struct {
    NullableString type, start;
    bool kept;
  } steps[] = {{"5", "A", true},          {"5", "A", false}, {"4", "B", true},
               {"4", "B", true},          {"5", "B", false}, {"5", "A", true},
               {"3", "B", true},          {"5", "A", true},  {"5", std::nullopt, true},
               {"5", std::nullopt, true}, {"5", "A", true},  {"4", std::nullopt, true},
               {"5", "A", true},          {"5", "", true},   {"5", "", false}};
  for (const auto& step : steps) {
    const std::size_t traces = console_->countStartingWith("Ostra->");
    EXPECT_EQ(action(step.type, step.start).size(), step.kept ? 9u : 0u)
        << *step.type << " " << step.start.value_or("(nil)");
    EXPECT_EQ(console_->countStartingWith("Ostra->"), traces + (step.kept ? 1 : 0));
  }
  // A trailer leaves the remembered start alone.
  format().playTrailerLog("5", "s", "B", "e", "1", "2", "3");
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
