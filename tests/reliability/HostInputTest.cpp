// Bad input from the host: NULL everywhere, megabyte strings, invalid UTF-8,
// control and XML-special characters. Records round-trip through the queue
// file and the upload.
#include <gtest/gtest.h>

#include "QXLog/QXLog.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

constexpr const char* kActionFile = "UserStatisticalLog.plist";
constexpr const char* kReplacement = "\xEF\xBF\xBD";

class HostInputTest : public UploadTest {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    format().setLimitLogCount(1000);
    logEnvReady(true);
  }
  std::vector<std::string> queuedItems() {
    std::vector<std::string> items;
    for (const Value& record : center().actionLog()) items.push_back(field(record, "a_1"));
    return items;
  }
};

// Every record value is a string: nil arguments are stored as "".
void expectOnlyStrings(const Value& value) {
  if (const Dictionary* record = value.asDictionary()) {
    for (const auto& [key, element] : *record) {
      if (key == "p") {
        expectOnlyStrings(element);
      } else {
        EXPECT_NE(element.asString(), nullptr) << key;
      }
    }
  } else if (const Array* array = value.asArray()) {
    for (const Value& element : *array) expectOnlyStrings(element);
  } else {
    ADD_FAILURE() << "neither a record nor a list of records";
  }
}

TEST_F(HostInputTest, NullForEveryStringArgumentIsNil) {
  QXLogFree(currentTime());
  put(nullptr, nullptr, nullptr);
  QXLogDictionary* dictionary = QXLogDictionaryCreate();
  put(dictionary, nullptr, "ignored");
  put(dictionary, "key", nullptr);
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
  recordDiagnosCompleteLog(dictionary);
  recordBehaviorLog(nullptr, nullptr, false);
  recordBehaviorLog(dictionary, nullptr, true);
  EXPECT_EQ(QXLogDictionaryCreateWithJSON(nullptr), nullptr);
  EXPECT_EQ(QXLogDictionaryCopyJSON(nullptr), nullptr);
  QXLogDictionaryRelease(dictionary);
  QXLogDictionaryRelease(nullptr);
  QXLogFree(nullptr);
  QXLogFormatSetString(nullptr, "ignored");
  QXLogFormatSetString("uid", nullptr);
  EXPECT_EQ(QXLogFormatCopyString(nullptr), nullptr);
  EXPECT_EQ(QXLogFormatCopyString("uid"), nullptr);
  QXLogCenterSaveActionStartTime(nullptr);
  settle();

  // Two launches and an action; the play starts went to the play header.
  Array queue = center().actionLog();
  ASSERT_EQ(queue.size(), 3u);
  expectOnlyStrings(Value(queue));
  EXPECT_EQ(field(queue[2], "a_1"), "");
  ASSERT_EQ(center().playActionLog().size(), 2u);
  expectOnlyStrings(Value(center().playActionLog()));
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

// Strings as the host passes them, and as the library holds them.
struct Case {
  std::string given;
  std::string held;      // in memory and in the upload
  std::string fromFile;  // read back from the queue file
};

std::vector<Case> hostileStrings() {
  std::string r = kReplacement;
  std::string megabyte(1 << 20, 'm');
  for (std::size_t i = 0; i < megabyte.size(); i += 4096) megabyte.replace(i, 5, "<&]]>");
  return {
      {"<", "<", "<"},
      {"&", "&", "&"},
      {"]]>", "]]>", "]]>"},
      {"<![CDATA[x]]>&amp;", "<![CDATA[x]]>&amp;", "<![CDATA[x]]>&amp;"},
      {"lone\rCR", "lone\rCR", "lone\rCR"},
      {"\r", "\r", "\r"},
      {"crlf\r\n\ttab", "crlf\r\n\ttab", "crlf\r\n\ttab"},
      {"bell\a esc\x1b", "bell\a esc\x1b", "bell" + r + " esc" + r},
      {"\x7f del", "\x7f del", "\x7f del"},
      {"中文 😀", "中文 😀", "中文 😀"},
      {"a\xff"
       "b",
       "a" + r + "b", "a" + r + "b"},
      {"cut \xc3", "cut " + r, "cut " + r},
      {"\xc0\xaf overlong", r + r + " overlong", r + r + " overlong"},
      {megabyte, megabyte, megabyte},
  };
}

TEST_F(HostInputTest, HostileStringsRoundTripThroughTheFileAndTheUpload) {
  std::vector<Case> cases = hostileStrings();
  for (const Case& c : cases) recordActionLog(c.given.c_str(), c.given.c_str());
  std::vector<std::string> held, fromFile;
  for (const Case& c : cases) {
    held.push_back(c.held);
    fromFile.push_back(c.fromFile);
  }
  EXPECT_EQ(queuedItems(), held);

  // Straight from memory, the upload carries every character.
  center().submitAllLog();
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(sentItems(0), held);

  // Through the file, after a restart: XML cannot carry C0 controls.
  for (const Case& c : cases) recordActionLog(c.given.c_str(), "1");
  restart();
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
