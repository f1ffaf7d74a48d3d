// The exported reporting functions: from the host's call, through the gate, to
// the record in its queue.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

using std::chrono::seconds;

class EntriesTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    // Keep every record in its queue: no batch is reached in these tests.
    center().format().setLimitLogCount(1000);
  }

  QXLogCenter& center() { return QXLogCenter::center(); }
  Array actions() { return center().actionLog(); }
  Array plays() { return center().playActionLog(); }
  // The only record of the action queue.
  Dictionary onlyAction() {
    Array queue = actions();
    if (queue.size() != 1 || !queue[0].asDictionary()) {
      ADD_FAILURE() << "expected one record, found " << queue.size();
      return Dictionary();
    }
    return *queue[0].asDictionary();
  }
};

TEST_F(EntriesTest, LaunchWithoutPushIdEqualsAnEmptyPushId) {
  logEnvReady(true);
  recordLaunchLog("cold");
  recordLaunchLogWithPushId("cold", "");
  recordLaunchLogWithPushId("warm", "p-9");
  Array queue = actions();
  ASSERT_EQ(queue.size(), 3u);
  for (const char* key :
       {"a_t", "a_0", "a_1", "a_2", "a_3", "a_4", "a_5", "a_6", "a_7", "a_9", "a_10"}) {
    EXPECT_EQ(field(queue[0], key), field(queue[1], key)) << key;
  }
  EXPECT_EQ(field(queue[0], "a_t"), "0");
  EXPECT_EQ(field(queue[0], "a_1"), "cold");
  EXPECT_EQ(field(queue[0], "a_2"), "1700000000000");  // start time from the clock
  EXPECT_EQ(field(queue[0], "a_3"), "");
  EXPECT_EQ(field(queue[2], "a_3"), "p-9");
}

TEST_F(EntriesTest, PlayStartBecomesTheHeaderAndIsTraced) {
  logEnvReady(true);
  recordSmallPlayLog("m1", "http://localhost/a b", "home", false, nullptr);
  std::optional<Dictionary> header = center().currentPlayHeader();
  ASSERT_TRUE(header.has_value());
  EXPECT_EQ("Play-currentPlayHeader:" + json(*header),
            "Play-currentPlayHeader:{\"a_t\":\"5\",\"a_1\":\"127.0.0.1\",\"a_3\":\"" +
                QXLogHelper::getIPAddress() +
                "\",\"a_4\":\"0\",\"a_5\":\"0\",\"a_6\":\"home\",\"a_7\":\"m1\","
                "\"a_8\":\"http://localhost/a%20b\",\"a_9\":\"1\"}");
  EXPECT_TRUE(console_->contains("Play-currentPlayHeader:" + json(*header)));
  // The header waits; nothing is queued.
  EXPECT_TRUE(actions().empty());
  EXPECT_TRUE(plays().empty());
}

TEST_F(EntriesTest, FixedTypePlaysForwardWithTheirType) {
  logEnvReady(true);
  struct Case {
    void (*entry)(const char*, const char*, const char*, bool, const char*);
    const char* type;
  };
  for (Case c : {Case{recordMoviePlayLog, "1"}, Case{recordSmallPlayLog, "5"},
                 Case{recordChannelPlayLog, "6"}}) {
    c.entry("m", "/local/file", "src", true, "0");
    std::optional<Dictionary> forwarded = center().currentPlayHeader();
    recordPlayLog("m", "/local/file", "src", true, "0", c.type);
    std::optional<Dictionary> direct = center().currentPlayHeader();
    ASSERT_TRUE(forwarded && direct);
    EXPECT_EQ(*forwarded, *direct) << c.type;
    EXPECT_EQ(field(*forwarded, "a_t"), c.type);
    EXPECT_EQ(field(*forwarded, "a_7"), "m");  // the movie id, first among the arguments
    EXPECT_EQ(field(*forwarded, "a_1"), "localhost");
  }
}

TEST_F(EntriesTest, PlayActionsAreQueuedAndFoldedByTheNextPlay) {
  logEnvReady(true);
  recordMoviePlayLog("m1", "/a", "s", true, "0");
  recordPlayActionLog("4", "playing", "10", "20", "0", "5", "1000");
  EXPECT_TRUE(console_->contains(
      "Play-log:{\"p_0\":\"1700000000000\",\"p_1\":\"1\",\"p_2\":\"4\",\"p_3\":\"playing\","
      "\"p_4\":\"10\",\"p_5\":\"20\",\"p_6\":\"0\",\"p_7\":\"5\",\"p_8\":\"3000\"}"));
  ASSERT_EQ(plays().size(), 1u);
  EXPECT_EQ(field(plays()[0], "p_8"), "3000");
  std::optional<Array> playFile = readQueueFile("USERPlayActionStatisticalLog.plist");
  ASSERT_TRUE(playFile.has_value());
  EXPECT_EQ(playFile->size(), 1u);

  recordMoviePlayLog("m2", "/b", "s", true, "0");
  Dictionary folded = onlyAction();
  EXPECT_EQ(field(folded, "a_7"), "m1");
  const Value* nested = folded.find("p");
  ASSERT_TRUE(nested != nullptr && nested->asArray() != nullptr);
  EXPECT_EQ(nested->asArray()->size(), 1u);
  EXPECT_TRUE(plays().empty());
  EXPECT_EQ(field(*center().currentPlayHeader(), "a_7"), "m2");
}

TEST_F(EntriesTest, SecondPlayWithoutActionsReplacesTheHeader) {
  logEnvReady(true);
  recordMoviePlayLog("m1", "/a", "s", true, "0");
  recordMoviePlayLog("m2", "/b", "s", true, "0");
  EXPECT_TRUE(actions().empty());
  EXPECT_EQ(field(*center().currentPlayHeader(), "a_7"), "m2");
}

TEST_F(EntriesTest, TrailerSharesThePlayActionRecordAndFilter) {
  logEnvReady(true);
  recordPlayTrailerLog("5", "buffering", "A", "B", "1", "2", "12");
  recordPlayActionLog("5", "buffering", "A", "B", "1", "2", "12");
  Array queue = plays();
  ASSERT_EQ(queue.size(), 2u);
  EXPECT_EQ(field(queue[0], "p_8"), "2012");  // the play-action offset, not 12000
  EXPECT_EQ(field(queue[0], "p_2"), "5");
  EXPECT_TRUE(console_->contains(
      "PlayTrailer-log:{\"p_0\":\"1700000000000\",\"p_1\":\"1\",\"p_2\":\"5\","
      "\"p_3\":\"buffering\",\"p_4\":\"A\",\"p_5\":\"B\",\"p_6\":\"1\",\"p_7\":\"2\","
      "\"p_8\":\"2012\"}"));
  // The repeat was filtered, yet its empty record is traced and queued.
  ASSERT_TRUE(queue[1].asDictionary() != nullptr);
  EXPECT_TRUE(queue[1].asDictionary()->empty());
  EXPECT_TRUE(console_->contains("Play-log:{}"));
}

TEST_F(EntriesTest, PlayActionsFromSeveralThreadsAreAllKept) {
  logEnvReady(true);
  constexpr int kPerThread = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i) {
        // Distinct start times: no buffering report repeats the previous one.
        std::string start = std::to_string(t) + "-" + std::to_string(i);
        recordPlayActionLog("5", "buffering", start.c_str(), "e", "0", "1", "2");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  Array queue = plays();
  ASSERT_EQ(queue.size(), 2u * kPerThread);
  for (const Value& record : queue) EXPECT_EQ(field(record, "p_8"), "2002");
}

TEST_F(EntriesTest, DiagnosesBypassTheQueues) {
  recordDiagnosLog("p1", "p2", "p3", "p4", "p5", "p6", "p7", "p8");
  QXLogDictionary* report = QXLogDictionaryCreate();
  put(report, "k", "v");
  recordDiagnosCompleteLog(report);
  QXLogDictionaryRelease(report);  // the deferred call keeps its own reference
  recordDiagnosCompleteLog(nullptr);
  EXPECT_EQ(dispatcher_->pending(), 3u);

  logEnvReady(true);
  dispatcher_->advance(seconds(5));
  EXPECT_EQ(dispatcher_->pending(), 0u);
  recordDiagnosLog(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_TRUE(actions().empty());
  EXPECT_TRUE(plays().empty());
  EXPECT_FALSE(readQueueFile("UserStatisticalLog.plist").has_value());
  EXPECT_FALSE(readQueueFile("USERPlayActionStatisticalLog.plist").has_value());
}

TEST_F(EntriesTest, EveryFamilyReachesTheActionQueueFileWithItsKeys) {
  logEnvReady(true);
  recordLaunchLog("cold");
  recordActionLog("tap", "1");
  recordNetworkLog("api", 12, "500");
  recordDownLog("id", "http://localhost/a", "n", "1", "p", "s");
  recordMoviePlayLog("m", "/a", "s", true, "0");
  recordPlayActionLog("4", "playing", "1", "2", "3", "4", "5");
  recordMoviePlayLog("m2", "/b", "s", true, "0");  // folds the first play

  std::optional<Array> file = readQueueFile("UserStatisticalLog.plist");
  ASSERT_TRUE(file.has_value());
  ASSERT_EQ(file->size(), 5u);
  auto keysOf = [](const Value& record) {
    std::string keys;
    for (const auto& [key, value] : *record.asDictionary()) keys += key + " ";
    return keys;
  };
  EXPECT_EQ(keysOf((*file)[0]), "a_t a_0 a_1 a_2 a_3 a_4 a_5 a_6 a_7 a_8 a_9 a_10 ");
  EXPECT_EQ(keysOf((*file)[1]), "a_t a_0 a_1 a_2 a_3 a_4 a_5 ");
  EXPECT_EQ(keysOf((*file)[2]), "a_t a_0 a_1 a_2 a_3 ");
  EXPECT_EQ(keysOf((*file)[3]),
            "a_t a_0 a_1 a_3 a_4 a_5 a_6 a_7 a_8 a_9 a_10 a_11 a_12 a_13 a_14 ");
  EXPECT_EQ(keysOf((*file)[4]), "a_t a_1 a_3 a_4 a_5 a_6 a_7 a_8 a_9 p ");
  std::vector<std::string> types;
  for (const Value& record : *file) types.push_back(field(record, "a_t"));
  EXPECT_EQ(types, (std::vector<std::string>{"0", "2", "7", "3", "1"}));
}

}  // namespace
}  // namespace qxlog::testing
