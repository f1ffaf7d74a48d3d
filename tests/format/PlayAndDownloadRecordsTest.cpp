// Play header, play-action, trailer and download records, and the query
// percent-encoding the download record uses.
#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/support/UrlEncoding.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

using std::chrono::milliseconds;
using namespace std::string_literals;

class PlayAndDownloadRecordsTest : public LibraryTest {
 protected:
  // A play-action record of the given type and start time.
  Dictionary action(const NullableString& type, const NullableString& start,
                    const NullableString& playTime = "0") {
    return format().playActionLog(type, "playing", start, "e", "10", "20", playTime);
  }
  // A download report on item "item" made `after` the saved start.
  Dictionary reportAfter(milliseconds after, const NullableString& amount,
                         const NullableString& url = "http://localhost/a.mp4") {
    center().saveActionStartTime("item");
    clock_->advance(after);
    return format().downLog("item", url, "done", amount, "/store/a.mp4", "The Name");
  }
};

TEST_F(PlayAndDownloadRecordsTest, HeaderDefaultsOnlyTypeAndPcdnToOne) {
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

TEST_F(PlayAndDownloadRecordsTest, OnlyHttpAddressesAreRecordedAndDownloadsPlayFromLocalhost) {
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

TEST_F(PlayAndDownloadRecordsTest, PlayActionRecordKeysAndValues) {
  format().setCurrent_time(Value("9000"));
  format().setServerInfoUpdateTime(1700000000000.0 - 500.0);
  EXPECT_EQ(json(format().playActionLog("4", "playing", "11", "12", "13", "14", "1000")),
            R"({"p_0":"9500","p_1":"1","p_2":"4","p_3":"playing","p_4":"11","p_5":"12",)"
            R"("p_6":"13","p_7":"14","p_8":"3000"})");
  EXPECT_TRUE(console_->contains(
      "Ostra->~~opetype(4)~~totaltime(3000)~buffer_start_time(11)~~~~recordTimestring(9500)"));
}

TEST_F(PlayAndDownloadRecordsTest, PlayTimeIsOffsetBy2000AndFlooredAtZero) {
  const std::pair<NullableString, const char*> cases[] = {
      {"1000", "3000"}, {"0", "2000"},  {"abc", "2000"}, {std::nullopt, "2000"},
      {"-500", "1500"}, {"-9000", "0"}, {" 42s", "2042"}};
  for (const auto& [played, expected] : cases) {
    EXPECT_EQ(field(action("1", "a", played), "p_8"), expected) << played.value_or("(nil)");
  }
  EXPECT_EQ(field(action("1", "a", "9223372036854775807"), "p_8"), "-9223372036854773809");
}

TEST_F(PlayAndDownloadRecordsTest, NilArgumentsBecomeEmptyAndTraceAsNull) {
  Dictionary record = format().playActionLog(std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                                             std::nullopt, std::nullopt, std::nullopt);
  for (const char* key : {"p_2", "p_3", "p_4", "p_5", "p_6", "p_7"}) {
    EXPECT_EQ(field(record, key), "") << key;
  }
  EXPECT_EQ(console_->countStartingWith("Ostra->~~opetype((null))~~totaltime(2000)~buffer_start_"
                                        "time((null))~~~~recordTimestring(1700000000000)"),
            1u);
}

TEST_F(PlayAndDownloadRecordsTest, RepeatedBufferingIsFilteredOut) {
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

TEST_F(PlayAndDownloadRecordsTest, TrailerTotalIsSecondsTimesThousandIn32Bits) {
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

TEST_F(PlayAndDownloadRecordsTest, TrailerRecordAndTrace) {
  format().setCurrent_time(Value("7"));
  format().setServerInfoUpdateTime(1700000000000.0);
  EXPECT_EQ(json(format().playTrailerLog("t", std::nullopt, "1", "2", "3", "4", "5")),
            R"({"p_0":"7","p_1":"1","p_2":"t","p_3":"","p_4":"1","p_5":"2","p_6":"3",)"
            R"("p_7":"4","p_8":"5000"})");
  EXPECT_TRUE(console_->contains("--播放小视频日志-t----(null)---1----2---3--4---5000"));
}

TEST(QueryEncoding, KeepsTheQueryCharactersAndEncodesEverythingElse) {
  const std::string kept = "abcxyzABCXYZ0189-._~!$&'()*+,;=:/?@";
  EXPECT_EQ(support::percentEncodeQuery(kept), kept);
  EXPECT_EQ(support::percentEncodeQuery("a b"), "a%20b");
  EXPECT_EQ(support::percentEncodeQuery("100%#frag"), "100%25%23frag");
  EXPECT_EQ(support::percentEncodeQuery("[x]\"<>\\^`{|}"), "%5Bx%5D%22%3C%3E%5C%5E%60%7B%7C%7D");
  // Multi-byte characters byte by byte, upper-case hex.
  EXPECT_EQ(support::percentEncodeQuery("\xC3\xA9\xE4\xB8\xAD"), "%C3%A9%E4%B8%AD");
  EXPECT_EQ(support::percentEncodeQuery(std::string("\x01\x7f\xff", 3)), "%01%7F%FF");
  EXPECT_EQ(support::percentEncodeQuery(""), "");
}

TEST_F(PlayAndDownloadRecordsTest, RecordHasNoA2RepeatsTheSendTimeAndFollowsTheServerClock) {
  // The item's name is not recorded; a_10 repeats the send time a_0.
  EXPECT_EQ(json(reportAfter(milliseconds(5000), "10")),
            R"({"a_t":"3","a_0":"1700000005000","a_1":"127.0.0.1","a_3":")" +
                QXLogHelper::getIPAddress() +
                R"(","a_4":"0","a_5":"0","a_6":"0","a_7":"item","a_8":"http://localhost/a.mp4",)"
                R"("a_9":"1700000000000","a_10":"1700000005000","a_11":"done","a_12":"10 M",)"
                R"("a_13":"2048.00","a_14":"/store/a.mp4"})");
  // Start and now on the server clock; the elapsed time is local.
  format().setCurrent_time(Value("100000"));
  format().setServerInfoUpdateTime(1700000005000.0);
  Dictionary record = reportAfter(milliseconds(5000), "10");
  EXPECT_EQ(field(record, "a_9") + "|" + field(record, "a_0") + "|" + field(record, "a_13"),
            "100000|105000|2048.00");
}

TEST_F(PlayAndDownloadRecordsTest, AmountAndAverageRate) {
  center().saveActionStartTime("item");
  clock_->advance(milliseconds(5000));
  const struct {
    NullableString amount;
    const char* shown;
    const char* rate;
  } cases[] = {{"10M", "10M", "2048.00"},        // a unit already written stays
               {"3 MB", "3 MB", "614.40"},       // the rate reads the leading number
               {"12.5m", "12.5m M", "2560.00"},  // only a capital M counts as a unit
               {"0.004", "0.004 M", "0.00"},     // rounded to 0.00 first; unrounded 0.82
               {"2.005", "2.005 M", "411.65"},   // as a float just above 2.005: 2.01
               {std::nullopt, "(null) M", "0.00"}, {"", " M", "0.00"}};
  for (const auto& c : cases) {
    Dictionary record = format().downLog("item", "http://x", "s", c.amount, "p", "n");
    EXPECT_EQ(field(record, "a_12") + "|" + field(record, "a_13"), c.shown + "|"s + c.rate);
  }
  // Under one second the rate divides by zero.
  EXPECT_EQ(field(reportAfter(milliseconds(999), "5"), "a_13"), "inf");
  EXPECT_EQ(field(format().downLog("item", "http://x", "s", "0", "p", "n"), "a_13"), "nan");
  EXPECT_EQ(field(format().downLog("item", "http://x", "s", "-1", "p", "n"), "a_13"), "-inf");
}

TEST_F(PlayAndDownloadRecordsTest, StartTimeIsKeptForLaterReportsAndAMissingOneIs1970) {
  center().saveActionStartTime("item");
  clock_->advance(milliseconds(2000));
  Dictionary first = format().downLog("item", "http://x", "s", "4", "p", "n");
  clock_->advance(milliseconds(2000));
  Dictionary second = format().downLog("item", "http://x", "s", "4", "p", "n");
  EXPECT_EQ(field(first, "a_9") + field(first, "a_13"), "17000000000002048.00");
  EXPECT_EQ(field(second, "a_9") + field(second, "a_13"), "17000000000001024.00");
  EXPECT_EQ(center().getActionStartTime("item"), NullableString("1700000000000"));
  Dictionary never = format().downLog("never-started", "http://x", "s", "10", "p", "n");
  EXPECT_EQ(field(never, "a_9") + "|" + field(never, "a_13"), "0|0.00");
  EXPECT_EQ(field(format().downLog(std::nullopt, "http://x", "s", "10", "p", "n"), "a_9"), "0");
}

TEST_F(PlayAndDownloadRecordsTest, OnlyHttpAddressesAreEncodedAndResolved) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://localhost/a b.mp4?q=1#x", "127.0.0.1|http://localhost/a%20b.mp4?q=1%23x"},
      {"https://localhost:8443/v", "127.0.0.1|https://localhost:8443/v"},
      {"http:/only/a path", "|http:/only/a%20path"},  // no host to look up
      {"ftp://localhost/a", "|"},
      {"HTTP://localhost/a", "|"},
      {"null", "|"},
      {"undefined", "|"},
      {"localhost/a", "|"},
      {" http://localhost/a", "|"}};
  for (const auto& [url, expected] : cases) {
    Dictionary record = format().downLog("item", url, "s", "1", "p", "n");
    EXPECT_EQ(field(record, "a_1") + "|" + field(record, "a_8"), expected) << url;
  }
}

TEST_F(PlayAndDownloadRecordsTest, NumbersIgnoreTheHostLocale) {
  const std::string saved = std::setlocale(LC_NUMERIC, nullptr);
  // Any locale with a decimal comma will do.
  if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8") && !std::setlocale(LC_NUMERIC, "fr_FR.UTF-8")) {
    GTEST_SKIP() << "no locale with a decimal comma installed";
  }
  Dictionary record = reportAfter(milliseconds(4000), "12,5");
  Dictionary decimal = format().downLog("item", "http://x", "s", "12.5", "p", "n");
  std::setlocale(LC_NUMERIC, saved.c_str());
  EXPECT_EQ(field(record, "a_13"), "3072.00");  // "12,5" reads 12
  EXPECT_EQ(field(decimal, "a_13"), "3200.00");
}

}  // namespace
}  // namespace qxlog::testing
