// Play header, play-action, trailer and download records, and the download's query encoding.
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

using std::nullopt;
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
  Dictionary reportAfter(milliseconds after, const NullableString& amount) {
    center().saveActionStartTime("item");
    clock_->advance(after);
    return format().downLog("item", "http://localhost/a.mp4", "done", amount, "/store/a.mp4",
                            "The Name");
  }
  Dictionary down(const NullableString& item, const NullableString& url,
                  const NullableString& amount) {
    return format().downLog(item, url, "s", amount, "p", "n");
  }
};

// Fields of a record, joined by '|'.
std::string fields(const Dictionary& record, std::initializer_list<const char*> keys) {
  std::string joined;
  for (const char* key : keys) joined += "|" + field(record, key);
  return joined.substr(1);
}

using Strings = std::vector<std::string>;
// `make` of each input, in order: a whole table in one expectation.
template <typename In, typename Make>
Strings each(std::initializer_list<In> inputs, Make make) {
  Strings out;
  for (const In& in : inputs) out.push_back(make(in));
  return out;
}

TEST_F(PlayAndDownloadRecordsTest, HeaderDefaultsOnlyTypeAndPcdnToOne) {
  EXPECT_EQ(
      json(format().playLog(nullopt, nullopt, nullopt, false, nullopt, nullopt)),
      R"({"a_t":"1","a_1":"","a_3":"","a_4":"0","a_5":"0","a_6":"","a_7":"","a_8":"","a_9":"1"})");
  // An empty value is not nil.
  EXPECT_EQ(
      json(format().playLog("", "", "", false, "", "")),
      R"({"a_t":"","a_1":"","a_3":"","a_4":"0","a_5":"0","a_6":"","a_7":"","a_8":"","a_9":""})");
  format().setNetworkState("4g");
  EXPECT_EQ(field(format().playLog("", "", "", false, "0", "6"), "a_4"), "4g");
}

// A downloaded item plays from localhost: the path as given, neither encoded nor looked up.
TEST_F(PlayAndDownloadRecordsTest, OnlyHttpAddressesAreRecordedAndDownloadsPlayFromLocalhost) {
  for (const bool downloaded : {false, true}) {
    auto header = [&](const NullableString& url) {
      return fields(format().playLog(url, "s", "m", downloaded, "0", "1"), {"a_1", "a_8"});
    };
    EXPECT_EQ(
        each<NullableString>({"https://localhost/a", "rtmp://localhost/l", "/var/media/a b.mp4",
                              "Http://localhost/a", "http://unresolvable.invalid/a b", nullopt},
                             header),
        (downloaded ? Strings{"localhost|https://localhost/a", "localhost|rtmp://localhost/l",
                              "localhost|/var/media/a b.mp4", "localhost|Http://localhost/a",
                              "localhost|http://unresolvable.invalid/a b", "localhost|"}
                    : Strings{"127.0.0.1|https://localhost/a", "|", "|", "|",
                              "|http://unresolvable.invalid/a%20b", "|"}));
  }
}

// Play action and trailer: keys, server clock and trace; nil becomes empty and traces as null.
TEST_F(PlayAndDownloadRecordsTest, PlayActionAndTrailerRecordsAndTraces) {
  format().setCurrent_time(Value("9000"));
  format().setServerInfoUpdateTime(1700000000000.0 - 500.0);
  EXPECT_EQ(json(format().playActionLog("4", "playing", "11", "12", "13", "14", "1000")),
            R"({"p_0":"9500","p_1":"1","p_2":"4","p_3":"playing","p_4":"11","p_5":"12",)"
            R"("p_6":"13","p_7":"14","p_8":"3000"})");
  EXPECT_TRUE(console_->contains(
      "Ostra->~~opetype(4)~~totaltime(3000)~buffer_start_time(11)~~~~recordTimestring(9500)"));
  EXPECT_EQ(json(format().playTrailerLog("t", nullopt, "1", "2", "3", "4", "5")),
            R"({"p_0":"9500","p_1":"1","p_2":"t","p_3":"","p_4":"1","p_5":"2","p_6":"3",)"
            R"("p_7":"4","p_8":"5000"})");
  EXPECT_TRUE(console_->contains("--播放小视频日志-t----(null)---1----2---3--4---5000"));
  format().setCurrent_time(Value("1700000000000"));
  format().setServerInfoUpdateTime(1700000000000.0);
  EXPECT_EQ(
      json(format().playActionLog(nullopt, nullopt, nullopt, nullopt, nullopt, nullopt, nullopt)),
      R"({"p_0":"1700000000000","p_1":"1","p_2":"","p_3":"","p_4":"","p_5":"","p_6":"",)"
      R"("p_7":"","p_8":"2000"})");
  EXPECT_EQ(console_->countStartingWith("Ostra->~~opetype((null))~~totaltime(2000)~buffer_start_"
                                        "time((null))~~~~recordTimestring(1700000000000)"),
            1u);
}

TEST_F(PlayAndDownloadRecordsTest, PlayTimeIsOffsetBy2000AndFlooredAtZero) {
  auto played = [&](const NullableString& time) { return field(action("1", "a", time), "p_8"); };
  EXPECT_EQ(
      each<NullableString>(
          {"1000", "0", "abc", nullopt, "-500", "-9000", " 42s", "9223372036854775807"}, played),
      (Strings{"3000", "2000", "2000", "2000", "1500", "0", "2042", "-9223372036854773809"}));
}

// Buffering (5) repeating the remembered start is dropped, untraced; other types are kept and
// move it on; nil never matches and is remembered; an empty start is a value.
TEST_F(PlayAndDownloadRecordsTest, RepeatedBufferingIsFilteredOut) {
  const struct {
    NullableString type, start;
    bool kept;
  } steps[] = {{"5", "A", true},     {"5", "A", false},    {"4", "B", true}, {"4", "B", true},
               {"5", "B", false},    {"5", "A", true},     {"3", "B", true}, {"5", "A", true},
               {"5", nullopt, true}, {"5", nullopt, true}, {"5", "A", true}, {"4", nullopt, true},
               {"5", "A", true},     {"5", "", true},      {"5", "", false}};
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

// Past INT32_MAX the product wraps; a figure past it saturates first.
TEST_F(PlayAndDownloadRecordsTest, TrailerTotalIsSecondsTimesThousandIn32Bits) {
  auto total = [&](const NullableString& seconds) {
    return field(format().playTrailerLog("t", "s", "1", "2", "3", "4", seconds), "p_8");
  };
  EXPECT_EQ(
      each<NullableString>(
          {"12", "1", "0", "-3", "abc", nullopt, "2147483", "2147484", "4294968", "99999999999"},
          total),
      (Strings{"12000", "1000", "0", "0", "0", "0", "2147483000", "-2147483296", "704", "-1000"}));
}

// Query characters stay; the rest is encoded byte by byte in upper-case hex.
TEST(QueryEncoding, KeepsTheQueryCharactersAndEncodesEverythingElse) {
  const std::string kept = "abcxyzABCXYZ0189-._~!$&'()*+,;=:/?@";
  EXPECT_EQ(each<std::string>({kept, "a b", "100%#frag", "[x]\"<>\\^`{|}", "\xC3\xA9\xE4\xB8\xAD",
                               "\x01\x7f\xff", ""},
                              support::percentEncodeQuery),
            (Strings{kept, "a%20b", "100%25%23frag", "%5Bx%5D%22%3C%3E%5C%5E%60%7B%7C%7D",
                     "%C3%A9%E4%B8%AD", "%01%7F%FF", ""}));
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
  EXPECT_EQ(fields(reportAfter(milliseconds(5000), "10"), {"a_9", "a_0", "a_13"}),
            "100000|105000|2048.00");
}

// A written unit (only a capital M) stays; the rate reads the leading number rounded to two
// places first ("0.004" unrounded: 0.82; "2.005" as a float is just above: 2.01).
TEST_F(PlayAndDownloadRecordsTest, AmountAndAverageRate) {
  center().saveActionStartTime("item");
  clock_->advance(milliseconds(5000));
  auto shown = [&](const NullableString& amount) {
    return fields(down("item", "http://x", amount), {"a_12", "a_13"});
  };
  EXPECT_EQ(each<NullableString>({"10M", "3 MB", "12.5m", "0.004", "2.005", nullopt, ""}, shown),
            (Strings{"10M|2048.00", "3 MB|614.40", "12.5m M|2560.00", "0.004 M|0.00",
                     "2.005 M|411.65", "(null) M|0.00", " M|0.00"}));
  // Under one second the rate divides by zero.
  EXPECT_EQ(field(reportAfter(milliseconds(999), "5"), "a_13"), "inf");
  EXPECT_EQ(each<NullableString>({"0", "-1"}, shown), (Strings{"0 M|nan", "-1 M|-inf"}));
}

TEST_F(PlayAndDownloadRecordsTest, StartTimeIsKeptForLaterReportsAndAMissingOneIs1970) {
  center().saveActionStartTime("item");
  clock_->advance(milliseconds(2000));
  EXPECT_EQ(fields(down("item", "http://x", "4"), {"a_9", "a_13"}), "1700000000000|2048.00");
  clock_->advance(milliseconds(2000));
  EXPECT_EQ(fields(down("item", "http://x", "4"), {"a_9", "a_13"}), "1700000000000|1024.00");
  EXPECT_EQ(center().getActionStartTime("item"), NullableString("1700000000000"));
  EXPECT_EQ(fields(down("never-started", "http://x", "10"), {"a_9", "a_13"}), "0|0.00");
  EXPECT_EQ(field(down(nullopt, "http://x", "10"), "a_9"), "0");
}

// "http:/only" has no host to look up.
TEST_F(PlayAndDownloadRecordsTest, OnlyHttpAddressesAreEncodedAndResolved) {
  auto address = [&](const char* url) { return fields(down("item", url, "1"), {"a_1", "a_8"}); };
  EXPECT_EQ(
      each<const char*>({"http://localhost/a b.mp4?q=1#x", "https://localhost:8443/v",
                         "http:/only/a path", "ftp://localhost/a", "HTTP://localhost/a", "null",
                         "undefined", "localhost/a", " http://localhost/a"},
                        address),
      (Strings{"127.0.0.1|http://localhost/a%20b.mp4?q=1%23x", "127.0.0.1|https://localhost:8443/v",
               "|http:/only/a%20path", "|", "|", "|", "|", "|", "|"}));
}

TEST_F(PlayAndDownloadRecordsTest, NumbersIgnoreTheHostLocale) {
  const std::string saved = std::setlocale(LC_NUMERIC, nullptr);
  // Any locale with a decimal comma will do.
  if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8") && !std::setlocale(LC_NUMERIC, "fr_FR.UTF-8")) {
    GTEST_SKIP() << "no locale with a decimal comma installed";
  }
  const std::string comma = field(reportAfter(milliseconds(4000), "12,5"), "a_13");
  const std::string point = field(down("item", "http://x", "12.5"), "a_13");
  std::setlocale(LC_NUMERIC, saved.c_str());
  EXPECT_EQ(comma + "|" + point, "3072.00|3200.00");  // "12,5" reads 12
}

}  // namespace
}  // namespace qxlog::testing
