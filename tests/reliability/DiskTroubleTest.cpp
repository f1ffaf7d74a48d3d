// A Documents directory that cannot be written: missing, read-only, or on a
// full file system (the test environment's files fail as theirs do). Reports
// go on in memory, and the first store that can write again writes the whole
// queue.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

namespace fs = std::filesystem;

enum class Trouble { kMissing, kReadOnly, kFull };

class DiskTroubleTest : public LibraryTest, public ::testing::WithParamInterface<Trouble> {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    format().setLimitLogCount(1000);  // nothing is uploaded
    logEnvReady(true);
  }
  static void report(int from, int to) {
    for (int i = from; i < to; ++i) recordActionLog(std::to_string(i).c_str(), "1");
  }
  static std::vector<std::string> numbers(int from, int to) {
    std::vector<std::string> result;
    for (int i = from; i < to; ++i) result.push_back(std::to_string(i));
    return result;
  }
  std::vector<std::string> inMemory() { return items(center().actionLog()); }
  std::vector<std::string> inFile() {
    return items(readQueueFile("UserStatisticalLog.plist").value_or(Array()));
  }
  bool temporariesLeft() {
    for (const fs::directory_entry& entry : fs::directory_iterator(documents_)) {
      if (entry.path().filename().string().find(".tmp-") != std::string::npos) return true;
    }
    return false;
  }
};

TEST_P(DiskTroubleTest, ReportsWaitInMemoryAndTheOldFileStandsUntilWritingWorksAgain) {
  const Trouble trouble = GetParam();
  report(0, 2);
  ASSERT_EQ(inFile(), numbers(0, 2));
  if (trouble == Trouble::kMissing) {
    fs::remove_all(documents_);
  } else {
    files_->setFault(trouble == Trouble::kFull ? FaultyFileSystem::Fault::kFull
                                               : FaultyFileSystem::Fault::kReadOnly);
  }

  report(2, 40);
  EXPECT_EQ(inMemory(), numbers(0, 40));
  if (trouble == Trouble::kMissing) {
    EXPECT_FALSE(fs::exists(documents_));
    fs::create_directories(documents_);
  } else {
    EXPECT_EQ(inFile(), numbers(0, 2));  // the write failed; the old file stands
    EXPECT_FALSE(temporariesLeft());
    files_->setFault(FaultyFileSystem::Fault::kNone);
  }
  report(40, 41);
  EXPECT_EQ(inFile(), numbers(0, 41));
  restart();
  EXPECT_EQ(inMemory(), numbers(0, 41));
}

INSTANTIATE_TEST_SUITE_P(Troubles, DiskTroubleTest,
                         ::testing::Values(Trouble::kMissing, Trouble::kReadOnly, Trouble::kFull));

class InterruptedWriteTest : public LibraryTest {};

TEST_F(InterruptedWriteTest, LoadingAQueueClearsOnlyItsOwnInterruptedWrites) {
  const char* stale[] = {"UserStatisticalLog.plist.tmp-a1B2c3",
                         "UserStatisticalLog.plist.tmp-zzzzzz"};
  const char* kept[] = {"UserStatisticalLog.plist.tmp-toolong1",
                        "USERPlayActionStatisticalLog.plist.tmp-a1B2c3",
                        "UserStatisticalLog.plist.bak", "notes.txt"};
  for (const char* name : stale) std::ofstream(documentsPath(name)) << "<plist";
  for (const char* name : kept) std::ofstream(documentsPath(name)) << "x";
  EXPECT_TRUE(center().actionLog().empty());
  for (const char* name : stale) EXPECT_FALSE(fs::exists(documentsPath(name))) << name;
  for (const char* name : kept) EXPECT_TRUE(fs::exists(documentsPath(name))) << name;
}

}  // namespace
}  // namespace qxlog::testing
