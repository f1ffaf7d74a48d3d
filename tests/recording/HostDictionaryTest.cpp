#include <gtest/gtest.h>

#include <string>

#include "QXLog/QXLog.h"

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
  put(nullptr, "a", "no crash");
  EXPECT_EQ(json(dictionary), R"({"a":"2","n":5,"d":{"k":[]},"b":""})");
  QXLogDictionaryRelease(dictionary);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("[1,2]"), nullptr);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("{broken"), nullptr);
  EXPECT_EQ(json(nullptr), "<null>");
}

}  // namespace
