#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Files.h"
#include "QXLog/serial/Json.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

constexpr const char* kActionFile = "UserStatisticalLog.plist";
constexpr const char* kPlayFile = "USERPlayActionStatisticalLog.plist";
constexpr const char* kStartFile = "USERMovieStartTimeLog.plist";

class QueueFilesTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    center().format().setLimitLogCount(1000);  // no count-triggered submission
  }
  QXLogCenter& center() { return QXLogCenter::center(); }
  void writeFile(const char* name, const std::string& contents) {
    std::ofstream(documentsPath(name), std::ios::binary) << contents;
  }
  // A queue file read back by libplist, as JSON; "none" when it holds no array.
  std::string file(const char* name) {
    std::optional<Array> queue = readQueueFile(name);
    return queue ? serial::toJson(Value(*queue)) : "none";
  }
  void store(const char* item) { center().storeActionLog(strings({{"a_1", item}})); }
};

TEST_F(QueueFilesTest, FirstAccessCreatesEachFileEmptyAndEveryStoreRewritesTheQueue) {
  EXPECT_FALSE(platform::fileExists(documentsPath(kActionFile)));
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_TRUE(center().playActionLog().empty());
  EXPECT_TRUE(center().actionStartTime().empty());
  for (const char* name : {kActionFile, kPlayFile, kStartFile}) {
    EXPECT_EQ(std::filesystem::file_size(documentsPath(name)), 0u) << name;
  }
  // Read back by libplist, XML specials, line ends and nesting included.
  center().storeActionLog(strings({{"a_t", "2"}, {"a_1", "<&>]]>\r"}}));
  EXPECT_EQ(file(kActionFile), R"([{"a_t":"2","a_1":"<&>]]>\r"}])");
  Dictionary folded = strings({{"a_t", "1"}});
  folded.set("p", Value(Array{Value(strings({{"p_2", "4"}}))}));
  center().storeActionLog(folded);
  center().storePlayLog(strings({{"p_2", "4"}}));
  EXPECT_EQ(file(kActionFile), R"([{"a_t":"2","a_1":"<&>]]>\r"},{"a_t":"1","p":[{"p_2":"4"}]}])");
  EXPECT_EQ(file(kPlayFile), R"([{"p_2":"4"}])");
  // No temporary file is left beside the queue files.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(documents_), {}), 3);
}

TEST_F(QueueFilesTest, AStoreAfterTheQueueIsReplacedOrFoldedWritesWhatMemoryHolds) {
  store("old 1");
  store("old 2");
  // A replacement of the same size must not be written from the old records.
  center().setActionLog(
      Array{Value(strings({{"a_1", "new 1"}})), Value(strings({{"a_1", "new 2"}}))});
  store("new 3");
  EXPECT_EQ(file(kActionFile), R"([{"a_1":"new 1"},{"a_1":"new 2"},{"a_1":"new 3"}])");

  center().setCurrentPlayHeader(strings({{"a_t", "1"}}));
  center().storePlayLog(strings({{"p_2", "1"}}));
  center().storePlayLog(strings({{"p_2", "2"}}));
  center().makePlayLog();
  EXPECT_TRUE(center().playActionLog().empty());
  center().storePlayLog(strings({{"p_2", "3"}}));
  EXPECT_EQ(file(kPlayFile), R"([{"p_2":"3"}])");
}

TEST_F(QueueFilesTest, QueuesAndStartTimesAreReadBackAfterARestart) {
  for (const char* item : {"0", "1", "2", "3", "4"}) store(item);
  center().storePlayLog(strings({{"p_2", "x"}}));
  clock_->setWallSeconds(1700000000.5);
  center().saveActionStartTime("movie");
  clock_->advance(std::chrono::seconds(3));
  center().saveActionStartTime("movie");  // the later time wins
  center().saveActionStartTime("other");
  EXPECT_EQ(center().getActionStartTime("unknown"), std::nullopt);
  const Array before = center().actionLog();

  restart();
  EXPECT_EQ(center().actionLog(), before);
  EXPECT_EQ(serial::toJson(Value(center().playActionLog())), R"([{"p_2":"x"}])");
  EXPECT_FALSE(center().currentPlayHeader().has_value());  // memory only
  EXPECT_EQ(center().getActionStartTime("movie"), "1700000003500");
  EXPECT_EQ(center().actionStartTime().size(), 2u);
}

TEST_F(QueueFilesTest, DamagedFilesReadAsEmptyAndOtherWritersFilesAreRead) {
  writeFile(kActionFile, "<?xml version=\"1.0\"?><plist><array><dict><key>a");
  writeFile(kPlayFile,
            "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>k</key>"
            "<string>v</string></dict></plist>");
  writeFile(kStartFile, "\x00\x01garbage");
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_TRUE(center().playActionLog().empty());
  EXPECT_TRUE(center().actionStartTime().empty());
  store("fresh");
  EXPECT_EQ(file(kActionFile), R"([{"a_1":"fresh"}])");

  // Laid out the way other property-list tools write them.
  writeFile(kActionFile,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
            "<array><dict><key>a_t</key><string>0</string><key>a_1</key>"
            "<string>x &amp; y</string></dict></array></plist>");
  restart();
  EXPECT_EQ(serial::toJson(Value(center().actionLog())), R"([{"a_t":"0","a_1":"x & y"}])");
}

TEST_F(QueueFilesTest, RemovingAFileSaysSoOnlyWhenThereWasOne) {
  QXLogHelper::removePlist(kPlayFile);
  EXPECT_TRUE(console_->lines().empty());
  center().storePlayLog(strings({{"p_2", "1"}}));
  QXLogHelper::removePlist(kPlayFile);
  EXPECT_TRUE(console_->contains("文件删除成功 = USERPlayActionStatisticalLog.plist"));
  EXPECT_FALSE(platform::fileExists(documentsPath(kPlayFile)));
}

}  // namespace
}  // namespace qxlog::testing
