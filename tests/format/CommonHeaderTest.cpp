#include <gtest/gtest.h>

#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Console.h"
#include "QXLog/serial/Text.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

class CommonHeaderTest : public LibraryTest {
 protected:
  QXLogMessageFormat& format() { return QXLogCenter::center().format(); }
};

TEST_F(CommonHeaderTest, DefaultsFillAllTwelveKeys) {
  EXPECT_EQ(json(format().publicLog()),
            R"({"t_1":"2","t_2":"","t_3":"","t_4":"","t_5":"","t_6":"","t_7":"","t_8":"",)"
            R"("t_9":"","t_10":"","t_11":"","t_12":""})");
}

TEST_F(CommonHeaderTest, KeysCarryTheirContextAndIdfaTwice) {
  // Through the named access the C interface uses.
  const std::pair<const char*, const char*> context[] = {
      {"idfa", "device"}, {"devModel", "model"},     {"hardVer", "12.1"},  {"channel", "store"},
      {"phone", "555"},   {"vipState", "vip"},       {"bundleVer", "3.2"}, {"ver", "300"},
      {"uid", "42"},      {"terminal_category", "7"}};
  for (const auto& [name, value] : context) {
    ASSERT_TRUE(format().setStringProperty(name, value)) << name;
  }
  EXPECT_EQ(json(format().publicLog()),
            R"({"t_1":"7","t_2":"device","t_3":"model","t_4":"12.1","t_5":"store",)"
            R"("t_6":"device","t_7":"555","t_8":"vip","t_9":"3.2","t_10":"300","t_11":"",)"
            R"("t_12":"42"})");
}

TEST_F(CommonHeaderTest, HeaderIsTracedWhenTheUserIdIsNotANumber) {
  const std::pair<NullableString, bool> cases[] = {{std::nullopt, true}, {"0", true},
                                                   {"", true},           {"abc42", true},
                                                   {"42", false},        {" 7x", false}};
  for (const auto& [uid, traced] : cases) {
    format().setUid(uid);
    const std::size_t before = console_->lines().size();
    const std::string trace = serial::describe(Value(format().publicLog()));
    EXPECT_EQ(console_->lines().size(), before + traced) << uid.value_or("(nil)");
    EXPECT_EQ(console_->contains(trace), traced) << uid.value_or("(nil)");
  }
}

TEST_F(CommonHeaderTest, SendTimeFollowsTheServerClock) {
  EXPECT_EQ(format().returnsSendTime(987654.0), "987654");  // before any settings answer
  format().setCurrent_time(Value("50000"));
  format().setServerInfoUpdateTime(40000.0);
  EXPECT_EQ(format().returnsSendTime(45500.0), "55500");
  EXPECT_EQ(format().returnsSendTime(39000.0), "49000");  // local clock went back
  EXPECT_EQ(format().returnsSendTime(39999.1), "50000");  // -0.9 ms truncates to 0
  format().setCurrent_time(Value(int64_t{50000}));        // a numeric answer reads the same
  EXPECT_EQ(format().returnsSendTime(45500.0), "55500");
  format().setCurrent_time(Value("not a number"));
  EXPECT_EQ(format().returnsSendTime(45500.0), "5500");
}

TEST_F(CommonHeaderTest, DevelopmentModeFixesTheBatchSizeAtTwo) {
  EXPECT_EQ(format().limitLogCount(), 1);
  format().setLimitLogCount(50);
  format().setIsDev(true);
  EXPECT_EQ(format().limitLogCount(), 2);
  format().setIsDev(false);
  EXPECT_EQ(format().limitLogCount(), 50);
  format().setLimitLogCount(-3);  // stored without any check
  EXPECT_EQ(format().limitLogCount(), -3);
}

TEST_F(CommonHeaderTest, InitialValuesAndNamedAccess) {
  EXPECT_EQ(format().networkState(), "0");
  EXPECT_EQ(format().terminal_category(), "2");
  EXPECT_EQ(format().bundleVer(), "");
  EXPECT_EQ(format().packageName(), platform::programName());
  EXPECT_EQ(format().uid(), std::nullopt);

  EXPECT_TRUE(format().setStringProperty("pushLogUrl", "http://127.0.0.1/log"));
  EXPECT_EQ(format().pushLogUrl(), "http://127.0.0.1/log");
  EXPECT_TRUE(format().setStringProperty("city", std::nullopt));
  EXPECT_EQ(format().stringProperty("city"), std::optional<NullableString>(NullableString()));
  EXPECT_FALSE(format().setStringProperty("nonsense", "x"));
  EXPECT_FALSE(format().stringProperty("nonsense").has_value());
  format().setCurrent_time(Value(int64_t{123}));
  EXPECT_EQ(format().stringProperty("current_time"), NullableString("123"));
}

}  // namespace
}  // namespace qxlog::testing
