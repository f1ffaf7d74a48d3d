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

TEST(HostDictionaryTest, PutStoresEmptyForNilAndIgnoresNilKeys) {
  QXLogDictionary* dictionary = QXLogDictionaryCreate();
  put(dictionary, "a", "1");
  put(dictionary, nullptr, "ignored");
  put(dictionary, "b", nullptr);
  put(dictionary, "a", "2");  // replaces in place
  put(nullptr, "a", "no crash");
  EXPECT_EQ(json(dictionary), R"({"a":"2","b":""})");
  QXLogDictionaryRelease(dictionary);
}

TEST(HostDictionaryTest, CreatesFromJsonObjectsOnly) {
  QXLogDictionary* dictionary = QXLogDictionaryCreateWithJSON(R"({"n":5,"s":"x","d":{"k":[]}})");
  ASSERT_NE(dictionary, nullptr);
  EXPECT_EQ(json(dictionary), R"({"n":5,"s":"x","d":{"k":[]}})");
  QXLogDictionaryRelease(dictionary);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("[1,2]"), nullptr);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON("{broken"), nullptr);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON(nullptr), nullptr);
  EXPECT_EQ(json(nullptr), "<null>");
}

}  // namespace
