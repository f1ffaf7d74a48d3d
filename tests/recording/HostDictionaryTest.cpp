// The C interface's own values: the host dictionary, the version and the
// format's named strings. (The C11 build against the public header is the
// example C host, which ToolsTest runs.)
#include <gtest/gtest.h>

#include <string>

#include "QXLog/QXLog.h"
#include "tests/support/TestPlatform.h"

namespace {

std::string json(const QXLogDictionary* dictionary) {
  char* text = QXLogDictionaryCopyJSON(dictionary);
  std::string copy = text != nullptr ? text : "<null>";
  QXLogFree(text);
  return copy;
}

TEST(HostDictionaryTest, PutReplacesInPlaceAndOnlyJsonObjectsAreRead) {
  QXLogDictionary* dictionary = QXLogDictionaryCreateWithJSON(R"({"a":"1","n":5,"d":{"k":[]}})");
  ASSERT_NE(dictionary, nullptr);
  put(dictionary, "a", "2");
  put(dictionary, nullptr, "ignored");
  put(dictionary, "b", nullptr);
  put(dictionary, "q", "\"quoted\"");
  put(nullptr, "a", "no crash");
  EXPECT_EQ(json(dictionary), R"({"a":"2","n":5,"d":{"k":[]},"b":"","q":"\"quoted\""})");
  QXLogDictionaryRelease(dictionary);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("[1,2]"), nullptr);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("{broken"), nullptr);
  EXPECT_EQ(json(nullptr), "<null>");
}

class CInterfaceTest : public qxlog::testing::LibraryTest {};

TEST_F(CInterfaceTest, VersionAndNamedStringsEachUnknownNameSaidOnce) {
  EXPECT_EQ(QXLogVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(QXLogVersionString),
               "@(#)PROGRAM:QXLog  PROJECT:Pods-1\n");
  QXLogFormatSetString("pushLogUrl", "http://127.0.0.1:1/log");
  QXLogFormatSetString("pushlogurl", "x");
  QXLogFormatSetString("pushlogurl", "y");
  QXLogFormatSetString("uidd", "z");
  EXPECT_EQ(console_->lines(),
            (std::vector<std::string>{"QXLog: unknown property \"pushlogurl\" ignored",
                                      "QXLog: unknown property \"uidd\" ignored"}));
  char* url = QXLogFormatCopyString("pushLogUrl");
  EXPECT_STREQ(url, "http://127.0.0.1:1/log");
  QXLogFree(url);
  EXPECT_EQ(QXLogFormatCopyString("phone"), nullptr);  // nil
  EXPECT_EQ(QXLogFormatCopyString("no such property"), nullptr);
}

}  // namespace
