// The download record and the query percent-encoding it uses.
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

TEST(QueryEncoding, KeepsTheQueryCharactersAndEncodesEverythingElse) {
  const std::string kept = "abcxyzABCXYZ0189-._~!$&'()*+,;=:/?@";
  EXPECT_EQ(percentEncodeQuery(kept), kept);
  EXPECT_EQ(percentEncodeQuery("a b"), "a%20b");
  EXPECT_EQ(percentEncodeQuery("100%#frag"), "100%25%23frag");
  EXPECT_EQ(percentEncodeQuery("[x]\"<>\\^`{|}"), "%5Bx%5D%22%3C%3E%5C%5E%60%7B%7C%7D");
  // Multi-byte characters byte by byte, upper-case hex.
  EXPECT_EQ(percentEncodeQuery("\xC3\xA9\xE4\xB8\xAD"), "%C3%A9%E4%B8%AD");
  EXPECT_EQ(percentEncodeQuery(std::string("\x01\x7f\xff", 3)), "%01%7F%FF");
  EXPECT_EQ(percentEncodeQuery(""), "");
}

class DownloadRecordTest : public LibraryTest {
 protected:
  QXLogCenter& center() { return QXLogCenter::center(); }
  QXLogMessageFormat& format() { return center().format(); }

  // A report on item "item" made `after` the saved start.
  Dictionary reportAfter(milliseconds after, const NullableString& amount,
                         const NullableString& url = "http://localhost/a.mp4") {
    center().saveActionStartTime("item");
    clock_->advance(after);
    return format().downLog("item", url, "done", amount, "/store/a.mp4", "The Name");
  }
};

TEST_F(DownloadRecordTest, RecordHasNoA2AndRepeatsTheSendTime) {
  // The item's name is not recorded; a_10 repeats the send time a_0.
  EXPECT_EQ(json(reportAfter(milliseconds(5000), "10")),
            R"({"a_t":"3","a_0":"1700000005000","a_1":"127.0.0.1","a_3":")" +
                QXLogHelper::getIPAddress() +
                R"(","a_4":"0","a_5":"0","a_6":"0","a_7":"item","a_8":"http://localhost/a.mp4",)"
                R"("a_9":"1700000000000","a_10":"1700000005000","a_11":"done","a_12":"10 M",)"
                R"("a_13":"2048.00","a_14":"/store/a.mp4"})");
}

TEST_F(DownloadRecordTest, AmountAndAverageRate) {
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

TEST_F(DownloadRecordTest, StartTimeIsKeptForLaterReportsAndAMissingOneIs1970) {
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

TEST_F(DownloadRecordTest, StartAndNowAreOnTheServerClock) {
  format().setCurrent_time(Value("100000"));
  format().setServerInfoUpdateTime(1700000000000.0);
  Dictionary record = reportAfter(milliseconds(5000), "10");
  EXPECT_EQ(field(record, "a_9"), "100000");
  EXPECT_EQ(field(record, "a_0"), "105000");
  EXPECT_EQ(field(record, "a_13"), "2048.00");  // elapsed time is local
}

TEST_F(DownloadRecordTest, OnlyHttpAddressesAreEncodedAndResolved) {
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

TEST_F(DownloadRecordTest, NumbersIgnoreTheHostLocale) {
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
