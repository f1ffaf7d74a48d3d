#include <gtest/gtest.h>

#include "QXLog/platform/Json.h"

namespace qxlog::platform {
namespace {

TEST(JsonTest, WritesCompactJsonInInsertionOrder) {
  Dictionary record = makeStringDictionary({{"a_t", "2"}, {"a_0", "123"}});
  record.set("p", Value(Array{Value(makeStringDictionary({{"p_1", "1"}}))}));
  record.set("n", Value());
  record.set("b", Value(false));
  record.set("i", Value(int64_t{-5}));
  record.set("r", Value(1.5));
  EXPECT_EQ(toJson(Value(record)),
            R"({"a_t":"2","a_0":"123","p":[{"p_1":"1"}],"n":null,"b":false,"i":-5,"r":1.5})");
}

TEST(JsonTest, EscapesQuotesBackslashesAndControlCharacters) {
  EXPECT_EQ(toJson(Value("q\"b\\n\nt\tc\x01/ü")), R"("q\"b\\n\nt\tc\u0001/ü")");
}

TEST(JsonTest, WritesEmptyContainersAndEveryControlCharacter) {
  Dictionary d;
  d.set("a", Value(Array()));
  d.set("d", Value(Dictionary()));
  d.set("", Value(Array{Value(Array()), Value(Dictionary())}));
  EXPECT_EQ(toJson(Value(d)), R"({"a":[],"d":{},"":[[],{}]})");
  EXPECT_EQ(toJson(Value(Array())), "[]");
  std::string controls;
  for (char c = 0; c < 0x20; ++c) controls += c;
  EXPECT_EQ(toJson(Value(controls)),
            "\"\\u0000\\u0001\\u0002\\u0003\\u0004\\u0005\\u0006\\u0007\\b\\t\\n\\u000b\\f\\r"
            "\\u000e\\u000f\\u0010\\u0011\\u0012\\u0013\\u0014\\u0015\\u0016\\u0017\\u0018"
            "\\u0019\\u001a\\u001b\\u001c\\u001d\\u001e\\u001f\"");
}

TEST(JsonTest, AppendsAfterWhatTheStringHoldsAcrossGrowthSteps) {
  // Long enough to need several growth steps, with escapes at the end where
  // the worst case reserve matters most.
  const std::string text = std::string(10000, 'x') + "\"\x01";
  std::string out = "prefix:";
  appendJson(out,
             Value(Array{Value(text), Value(int64_t{-9223372036854775807 - 1}), Value(1e300)}));
  EXPECT_EQ(out,
            "prefix:[\"" + std::string(10000, 'x') + "\\\"\\u0001\",-9223372036854775808,1e+300]");
}

TEST(JsonTest, RoundTripsThroughTheParser) {
  Dictionary original = makeStringDictionary({{"t", "x"}, {"emoji", "😀"}, {"ctl", "\r\x1f"}});
  original.set("list", Value(Array{Value(int64_t{1}), Value(2.25), Value(true), Value()}));
  std::optional<Value> parsed = parseJson(toJson(Value(original)));
  ASSERT_TRUE(parsed.has_value());
  EXPECT_EQ(*parsed, Value(original));
}

TEST(JsonTest, RejectsInvalidTextAndHostileNesting) {
  EXPECT_FALSE(parseJson("").has_value());
  EXPECT_FALSE(parseJson("{\"a\":").has_value());
  EXPECT_FALSE(parseJson("{} trailing").has_value());
  EXPECT_FALSE(parseJson("\"\xFF\"").has_value());
  std::string deep(10000, '[');
  deep += std::string(10000, ']');
  EXPECT_FALSE(parseJson(deep).has_value());
  std::string allowed(100, '[');
  allowed += std::string(100, ']');
  EXPECT_TRUE(parseJson(allowed).has_value());
}

TEST(JsonTest, ParsesNumbersOfEveryKind) {
  std::optional<Value> parsed = parseJson(R"({"i":60000,"u":18446744073709551615,"r":1e300})");
  ASSERT_TRUE(parsed && parsed->isDictionary());
  EXPECT_EQ(*parsed->asDictionary()->find("i")->asInteger(), 60000);
  EXPECT_DOUBLE_EQ(*parsed->asDictionary()->find("u")->asReal(), 18446744073709551615.0);
  EXPECT_DOUBLE_EQ(*parsed->asDictionary()->find("r")->asReal(), 1e300);
}

}  // namespace
}  // namespace qxlog::platform
