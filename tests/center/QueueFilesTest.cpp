#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Files.h"
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
  std::uintmax_t fileSize(const char* name) {
    return std::filesystem::file_size(documentsPath(name));
  }
};

TEST_F(QueueFilesTest, FirstAccessCreatesEachFileEmpty) {
  EXPECT_FALSE(platform::fileExists(documentsPath(kActionFile)));
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_TRUE(center().playActionLog().empty());
  EXPECT_TRUE(center().actionStartTime().empty());
  EXPECT_EQ(fileSize(kActionFile), 0u);
  EXPECT_EQ(fileSize(kPlayFile), 0u);
  EXPECT_EQ(fileSize(kStartFile), 0u);
}

TEST_F(QueueFilesTest, EveryStoreRewritesTheWholeQueue) {
  center().storeActionLog(strings({{"a_t", "2"}, {"a_1", "one"}}));
  std::optional<Array> file = readQueueFile(kActionFile);
  ASSERT_TRUE(file.has_value());
  EXPECT_EQ(*file, Array{Value(strings({{"a_t", "2"}, {"a_1", "one"}}))});

  center().storeActionLog(strings({{"a_1", "two"}}));
  center().storePlayLog(strings({{"p_2", "4"}}));
  EXPECT_EQ(readQueueFile(kActionFile)->size(), 2u);
  EXPECT_EQ(*readQueueFile(kPlayFile), Array{Value(strings({{"p_2", "4"}}))});
  // No temporary file is left beside the queue files.
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(documents_)) {
    (void)entry;
    ++files;
  }
  EXPECT_EQ(files, 2u);
}

TEST_F(QueueFilesTest, AStoreAfterTheQueueIsReplacedWritesTheReplacement) {
  center().storeActionLog(strings({{"a_1", "old 1"}}));
  center().storeActionLog(strings({{"a_1", "old 2"}}));
  // A replacement of the same size must not be written from the old records.
  center().setActionLog(
      Array{Value(strings({{"a_1", "new 1"}})), Value(strings({{"a_1", "new 2"}}))});
  center().storeActionLog(strings({{"a_1", "new 3"}}));
  EXPECT_EQ(*readQueueFile(kActionFile),
            (Array{Value(strings({{"a_1", "new 1"}})), Value(strings({{"a_1", "new 2"}})),
                   Value(strings({{"a_1", "new 3"}}))}));
}

TEST_F(QueueFilesTest, AStoreAfterPlayRecordsAreFoldedWritesOnlyTheNewPlayRecord) {
  center().setCurrentPlayHeader(strings({{"a_t", "1"}}));
  center().storePlayLog(strings({{"p_2", "1"}}));
  center().storePlayLog(strings({{"p_2", "2"}}));
  center().makePlayLog();
  EXPECT_TRUE(center().playActionLog().empty());
  center().storePlayLog(strings({{"p_2", "3"}}));
  EXPECT_EQ(*readQueueFile(kPlayFile), Array{Value(strings({{"p_2", "3"}}))});
}

TEST_F(QueueFilesTest, QueuesAreReadBackInOrderAfterARestart) {
  for (int i = 0; i < 5; ++i) center().storeActionLog(strings({{"a_1", std::to_string(i)}}));
  center().storePlayLog(strings({{"p_2", "x"}}));
  Array before = center().actionLog();

  restart();
  EXPECT_EQ(center().actionLog(), before);
  EXPECT_EQ(center().playActionLog(), Array{Value(strings({{"p_2", "x"}}))});
  EXPECT_FALSE(center().currentPlayHeader().has_value());  // memory only
}

TEST_F(QueueFilesTest, DamagedOrWrongTypedFilesReadAsEmptyAndAreOverwritten) {
  writeFile(kActionFile, "<?xml version=\"1.0\"?><plist><array><dict><key>a");
  writeFile(kPlayFile,
            "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>k</key>"
            "<string>v</string></dict></plist>");
  writeFile(kStartFile, "\x00\x01garbage");
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_TRUE(center().playActionLog().empty());
  EXPECT_TRUE(center().actionStartTime().empty());

  center().storeActionLog(strings({{"a_1", "fresh"}}));
  EXPECT_EQ(readQueueFile(kActionFile)->size(), 1u);
}

TEST_F(QueueFilesTest, FilesFromAnotherWriterAreRead) {
  // Written the way other property-list tools lay them out.
  writeFile(kActionFile,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
            "<array><dict><key>a_t</key><string>0</string><key>a_1</key>"
            "<string>x &amp; y</string></dict></array></plist>");
  Array queue = center().actionLog();
  ASSERT_EQ(queue.size(), 1u);
  EXPECT_EQ(field(queue[0], "a_1"), "x & y");
}

TEST_F(QueueFilesTest, RemovingAFileSaysSoOnlyWhenThereWasOne) {
  QXLogHelper::removePlist(kPlayFile);
  EXPECT_TRUE(console_->lines().empty());
  center().storePlayLog(strings({{"p_2", "1"}}));
  QXLogHelper::removePlist(kPlayFile);
  EXPECT_TRUE(console_->contains("文件删除成功 = USERPlayActionStatisticalLog.plist"));
  EXPECT_FALSE(platform::fileExists(documentsPath(kPlayFile)));
}

TEST_F(QueueFilesTest, PythonPlistlibLoadsTheQueueFile) {
  if (std::system("python3 -c 'import plistlib' >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "python3 with plistlib is not available";
  }
  center().storeActionLog(strings({{"a_t", "2"}, {"a_1", "<&>]]>\r"}}));
  Dictionary folded = strings({{"a_t", "1"}});
  folded.set("p", Value(Array{Value(strings({{"p_2", "4"}}))}));
  center().storeActionLog(folded);
  std::string script =
      "import plistlib,sys\n"
      "q=plistlib.load(open(sys.argv[1],'rb'))\n"
      "assert isinstance(q,list) and all(isinstance(r,dict) for r in q), q\n"
      "assert q[0]['a_1']=='<&>]]>\\r', repr(q[0]['a_1'])\n"
      "assert q[1]['p'][0]['p_2']=='4'\n";
  std::string scriptPath = documentsPath("check.py");
  std::ofstream(scriptPath) << script;
  std::string command = "python3 " + scriptPath + " " + documentsPath(kActionFile);
  EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST_F(QueueFilesTest, StartTimesAreKeptPerKeyAndPersisted) {
  clock_->setWallSeconds(1700000000.5);
  center().saveActionStartTime("movie");
  clock_->advance(std::chrono::seconds(3));
  center().saveActionStartTime("movie");  // the later time wins
  center().saveActionStartTime("other");
  EXPECT_EQ(center().getActionStartTime("movie"), "1700000003500");
  EXPECT_EQ(center().getActionStartTime("unknown"), std::nullopt);

  restart();
  EXPECT_EQ(center().getActionStartTime("movie"), "1700000003500");
  EXPECT_EQ(center().actionStartTime().size(), 2u);
}

}  // namespace
}  // namespace qxlog::testing
