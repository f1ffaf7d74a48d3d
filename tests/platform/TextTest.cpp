#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <limits>

#include "QXLog/platform/Text.h"

namespace qxlog::platform {
namespace {

TEST(TextTest, LeadingIntegerFollowsTheStringObjectRules) {
  EXPECT_EQ(longLongValue("  42abc"), 42);
  EXPECT_EQ(longLongValue("\t-17"), -17);
  EXPECT_EQ(longLongValue("+8"), 8);
  EXPECT_EQ(longLongValue("abc"), 0);
  EXPECT_EQ(longLongValue(""), 0);
  EXPECT_EQ(longLongValue(NullableString()), 0);
  EXPECT_EQ(longLongValue("- 5"), 0);
  EXPECT_EQ(longLongValue("12.9"), 12);
}

TEST(TextTest, LeadingIntegerSaturatesInsteadOfOverflowing) {
  EXPECT_EQ(longLongValue("99999999999999999999"), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(longLongValue("-99999999999999999999"), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(longLongValue("-9223372036854775808"), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(intValue("2147483648"), std::numeric_limits<int32_t>::max());
  EXPECT_EQ(intValue("-2147483649"), std::numeric_limits<int32_t>::min());
  EXPECT_EQ(intValue("2147483647"), 2147483647);
}

TEST(TextTest, IntegerValueOfAnyValue) {
  EXPECT_EQ(integerValue(Value("1500")), 1500);
  EXPECT_EQ(integerValue(Value(int64_t{60000})), 60000);
  EXPECT_EQ(integerValue(Value(1999.9)), 1999);
  EXPECT_EQ(integerValue(Value(-1999.9)), -1999);
  EXPECT_EQ(integerValue(Value(1e300)), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(integerValue(Value(std::nan(""))), 0);
  EXPECT_EQ(integerValue(Value(true)), 1);
  EXPECT_EQ(integerValue(Value()), 0);
  EXPECT_EQ(integerValue(Value(Array{Value("5")})), 0);
}

TEST(TextTest, NumberFormatsIgnoreTheHostLocale) {
  // A host with a decimal comma must not change the texts records carry.
  const char* previous = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
  EXPECT_EQ(formatGeneral(59.59463), "59.5946");
  EXPECT_EQ(formatGeneral(18446744073709551616.0 / 1073741824.0), "1.71799e+10");
  EXPECT_EQ(formatGeneral(0.0), "0");
  EXPECT_EQ(formatFixed(2048.0, 2), "2048.00");
  EXPECT_EQ(formatFixed(2.0, 6), "2.000000");
  if (previous != nullptr) std::setlocale(LC_NUMERIC, "C");
}

TEST(TextTest, NonFiniteNumbersHaveLowerCaseTexts) {
  volatile double zero = 0.0;
  // 0/0 is a negative NaN on x86; it must still read "nan".
  EXPECT_EQ(formatFixed(zero / zero, 2), "nan");
  EXPECT_EQ(formatFixed(1.0 / zero, 2), "inf");
  EXPECT_EQ(formatFixed(-1.0 / zero, 2), "-inf");
  EXPECT_EQ(formatGeneral(1.0 / zero), "inf");
}

TEST(TextTest, DescribeWritesNilAsNull) {
  EXPECT_EQ(describe(Value()), "(null)");
  EXPECT_EQ(describe(NullableString()), "(null)");
  EXPECT_EQ(describe(Value("plain")), "plain");
  EXPECT_EQ(describe(Value(makeStringDictionary({{"a", "1"}}))), "{\"a\":\"1\"}");
}

TEST(TextTest, InvalidUtf8IsReplacedByteByByte) {
  const std::string kReplacement = "\xEF\xBF\xBD";
  EXPECT_EQ(validUtf8("plain ascii"), "plain ascii");
  EXPECT_EQ(validUtf8("\xE4\xB8\xAD\xF0\x9F\x98\x80"), "\xE4\xB8\xAD\xF0\x9F\x98\x80");
  EXPECT_EQ(validUtf8("a\xFF"
                      "b"),
            "a" + kReplacement + "b");
  // An overlong form, a UTF-16 surrogate and a truncated sequence.
  EXPECT_EQ(validUtf8("\xC0\xAF"), kReplacement + kReplacement);
  EXPECT_EQ(validUtf8("\xED\xA0\x80"), kReplacement + kReplacement + kReplacement);
  EXPECT_EQ(validUtf8("x\xE4\xB8"), "x" + kReplacement + kReplacement);
  EXPECT_EQ(validUtf8("\xF4\x90\x80\x80").substr(0, 3), kReplacement);
}

}  // namespace
}  // namespace qxlog::platform
