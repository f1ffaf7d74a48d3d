// Bad input from the host: NULL everywhere, megabyte strings, invalid UTF-8,
// control and XML-special characters. Records round-trip through the queue
// file and the upload.
#include <gtest/gtest.h>

#include <regex>

#include "QXLog/QXLog.h"
#include "QXLog/serial/Json.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";

class HostInputTest : public UploadTest {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    format().setLimitLogCount(1000);
    logEnvReady(true);
  }
  std::vector<std::string> queuedItems() { return items(center().actionLog()); }
};

// Every value of every record of a queue without play headers is a string:
// nil arguments are stored as "".
void expectOnlyStrings(const Array& queue) {
  const std::string text = serial::toJson(Value(queue));
  EXPECT_FALSE(std::regex_search(text, std::regex(R"(":[^"])"))) << text;
}

TEST_F(HostInputTest, NullForEveryStringArgumentIsNil) {
  QXLogFree(currentTime());
  QXLogDictionary* dictionary = QXLogDictionaryCreate();
  put(dictionary, nullptr, nullptr);
  recordLaunchLog(nullptr);
  recordLaunchLogWithPushId(nullptr, nullptr);
  recordActionLog(nullptr, nullptr);
  recordNetworkLog(nullptr, 0, nullptr);                                // dropped: no key
  recordDownLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);  // dropped: no key
  recordPlayLog(nullptr, nullptr, nullptr, false, nullptr, nullptr);
  recordMoviePlayLog(nullptr, nullptr, nullptr, false, nullptr);
  recordSmallPlayLog(nullptr, nullptr, nullptr, true, nullptr);
  recordChannelPlayLog(nullptr, nullptr, nullptr, false, nullptr);
  recordPlayActionLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  recordPlayTrailerLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  recordDiagnosLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  recordDiagnosCompleteLog(nullptr);
  recordBehaviorLog(nullptr, nullptr, false);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON(nullptr), nullptr);
  EXPECT_EQ(QXLogDictionaryCopyJSON(nullptr), nullptr);
  QXLogDictionaryRelease(dictionary);
  QXLogFree(nullptr);
  QXLogFormatSetString("uid", nullptr);
  EXPECT_EQ(QXLogFormatCopyString(nullptr), nullptr);
  QXLogCenterSaveActionStartTime(nullptr);
  settle();

  // Two launches and an action; the play starts went to the play header.
  Array queue = center().actionLog();
  ASSERT_EQ(queue.size(), 3u);
  expectOnlyStrings(queue);
  EXPECT_EQ(field(queue[2], "a_1"), "");
  ASSERT_EQ(center().playActionLog().size(), 2u);
  expectOnlyStrings(center().playActionLog());
  // The file holds what memory holds, and a nil uid travels in the upload.
  EXPECT_EQ(readQueueFile(kActionFile), queue);
  std::size_t before = server_->requestCount();
  center().submitAllLog();
  settle();
  ASSERT_EQ(server_->requestCount(), before + 1);
  Array sent = records(before);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(Value(sent[0]), Value(queue[0]));
}

TEST_F(HostInputTest, HostileStringsRoundTripThroughTheFileAndTheUpload) {
  const std::string r = kReplacement;
  std::string megabyte(1 << 20, 'm');
  for (std::size_t i = 0; i < megabyte.size(); i += 4096) megabyte.replace(i, 5, "<&]]>");
  // Kept as given everywhere; or as given, as held in memory and uploaded,
  // and as read back from the file (XML cannot carry C0 controls).
  std::vector<std::string> given = {"<",        "&",     "]]>",           "<![CDATA[x]]>&amp;",
                                    "lone\rCR", "\r",    "crlf\r\n\ttab", "\x7f del",
                                    "中文 😀",   megabyte};
  std::vector<std::string> held = given, fromFile = given;
  const std::string changed[][3] = {
      {"bell\a esc\x1b", "bell\a esc\x1b", "bell" + r + " esc" + r},
      {"a\xff", "a" + r, "a" + r},
      {"cut \xc3", "cut " + r, "cut " + r},
      {"\xc0\xaf overlong", r + r + " overlong", r + r + " overlong"}};
  for (const auto& [text, inMemory, inFile] : changed) {
    given.push_back(text);
    held.push_back(inMemory);
    fromFile.push_back(inFile);
  }
  for (const std::string& text : given) recordActionLog(text.c_str(), text.c_str());
  EXPECT_EQ(queuedItems(), held);
  center().submitAllLog();  // straight from memory: every character
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(sentItems(0), held);

  for (const std::string& text : given) recordActionLog(text.c_str(), "1");
  restart();  // through the file
  EXPECT_EQ(queuedItems(), fromFile);
  format().setPushLogUrl(server_->url("/log"));  // the new process's context
  format().setLogEncryptionKey(kTestKey);
  center().submitAllLog();
  settle();
  ASSERT_EQ(server_->requestCount(), 2u);
  EXPECT_EQ(sentItems(1), fromFile);
}

TEST_F(HostInputTest, InvalidUtf8GetsOneTreatmentEverywhere) {
  std::string r = kReplacement;
  QXLogFormatSetString("uid", "u\xfe");
  char* uid = QXLogFormatCopyString("uid");
  ASSERT_NE(uid, nullptr);
  EXPECT_EQ(std::string(uid), "u" + r);
  QXLogFree(uid);

  QXLogDictionary* dictionary = QXLogDictionaryCreateWithJSON("{\"k\":\"v\xff\"}");
  ASSERT_NE(dictionary, nullptr);
  put(dictionary, "key\x80", "value\xc3");
  char* json = QXLogDictionaryCopyJSON(dictionary);
  ASSERT_NE(json, nullptr);
  EXPECT_EQ(std::string(json), "{\"k\":\"v" + r + "\",\"key" + r + "\":\"value" + r + "\"}");
  QXLogFree(json);
  QXLogDictionaryRelease(dictionary);

  recordLaunchLogWithPushId("launch\xf5", "push\xed\xa0\x80");
  Array queue = center().actionLog();
  ASSERT_EQ(queue.size(), 1u);
  EXPECT_EQ(field(queue[0], "a_1"), "launch" + r);
  EXPECT_EQ(field(queue[0], "a_3"), "push" + r + r + r);
  restart();
  EXPECT_EQ(center().actionLog(), queue);
}

}  // namespace
}  // namespace qxlog::testing
