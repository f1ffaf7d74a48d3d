#include <gtest/gtest.h>

#include "QXLog/platform/PropertyList.h"

namespace qxlog::platform {
namespace {

Value roundTrip(const Value& value) {
  std::optional<Value> parsed = parsePropertyList(toXmlPropertyList(value));
  if (!parsed) {
    ADD_FAILURE() << "the written property list did not parse";
    return Value();
  }
  return std::move(*parsed);
}

TEST(PropertyListTest, WritesTheStandardXmlForm) {
  Array queue{Value(makeStringDictionary({{"a_t", "2"}}))};
  EXPECT_EQ(toXmlPropertyList(Value(queue)),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n"
            "<array>\n"
            "\t<dict>\n"
            "\t\t<key>a_t</key>\n"
            "\t\t<string>2</string>\n"
            "\t</dict>\n"
            "</array>\n"
            "</plist>\n");
}

TEST(PropertyListTest, RecordsWithNestedPlayActionsRoundTrip) {
  Dictionary header = makeStringDictionary({{"a_t", "5"}, {"a_8", "http://h/a%20b"}});
  header.set("p", Value(Array{Value(makeStringDictionary({{"p_0", "1"}, {"p_8", "2000"}})),
                              Value(Dictionary())}));
  Array queue{Value(header), Value(Dictionary()), Value(Array())};
  EXPECT_EQ(roundTrip(Value(queue)), Value(queue));
}

TEST(PropertyListTest, TextThatXmlTreatsSpeciallySurvives) {
  for (const char* text : {"<tag>", "a & b", "]]>", "lone\rCR", "crlf\r\n", "tab\tnl\n",
                           "  padded  ", "中文 😀", "&amp; literal", "\"quotes' "}) {
    Value value(Array{Value(makeStringDictionary({{"k<&>", text}}))});
    EXPECT_EQ(roundTrip(value), value) << text;
  }
}

TEST(PropertyListTest, ControlCharactersXmlCannotCarryBecomeReplacementCharacters) {
  Value written(
      Array{Value("a\x01"
                  "b\x1f")});
  EXPECT_EQ(roundTrip(written), Value(Array{Value("a\xEF\xBF\xBD"
                                                  "b\xEF\xBF\xBD")}));
}

TEST(PropertyListTest, ScalarsRoundTrip) {
  Dictionary scalars;
  scalars.set("yes", Value(true));
  scalars.set("no", Value(false));
  scalars.set("int", Value(int64_t{-42}));
  scalars.set("real", Value(0.1));
  scalars.set("empty", Value(""));
  EXPECT_EQ(roundTrip(Value(scalars)), Value(scalars));
}

TEST(PropertyListTest, BytesThatHoldNoPropertyListReadAsNothing) {
  EXPECT_FALSE(parsePropertyList("").has_value());
  EXPECT_FALSE(parsePropertyList("not a plist at all").has_value());
  std::string torn = toXmlPropertyList(Value(Array{Value("x"), Value("y")}));
  torn.resize(torn.size() / 2);
  EXPECT_FALSE(parsePropertyList(torn).has_value());
}

}  // namespace
}  // namespace qxlog::platform
