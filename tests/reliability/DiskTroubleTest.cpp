// A Documents directory that cannot be written: missing, read-only, or on a
// full file system. Reports go on in memory, and the first store that can
// write again writes the whole queue.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

namespace fs = std::filesystem;

// A small tmpfs mounted over a directory for the length of a test; needs root.
class SmallFileSystem {
 public:
  SmallFileSystem(const std::string& directory, const char* options) : directory_(directory) {
    mounted_ = ::geteuid() == 0 && ::mount("tmpfs", directory.c_str(), "tmpfs", 0, options) == 0;
  }
  ~SmallFileSystem() {
    if (mounted_) ::umount2(directory_.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }
  bool remount(unsigned long flags) {
    return ::mount("tmpfs", directory_.c_str(), "tmpfs", MS_REMOUNT | flags, "size=64k") == 0;
  }

 private:
  std::string directory_;
  bool mounted_ = false;
};

enum class Trouble { kMissing, kReadOnly, kFull };

class DiskTroubleTest : public LibraryTest, public ::testing::WithParamInterface<Trouble> {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    QXLogCenter::center().format().setLimitLogCount(1000);  // nothing is uploaded
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
  std::vector<std::string> inMemory() { return items(QXLogCenter::center().actionLog()); }
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
  // Root ignores permission bits: a read-only file system stands in.
  const bool onTmpfs = trouble == Trouble::kFull || (trouble == Trouble::kReadOnly && !geteuid());
  std::optional<SmallFileSystem> small;
  if (onTmpfs) {
    small.emplace(documents_, "size=64k");
    if (!small->mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
  }
  report(0, 2);
  ASSERT_EQ(inFile(), numbers(0, 2));
  if (trouble == Trouble::kMissing) {
    fs::remove_all(documents_);
  } else if (trouble == Trouble::kFull) {
    std::ofstream filler(documents_ + "/filler", std::ios::binary);
    const std::string block(4096, 'f');
    for (int i = 0; i < 64 && filler.write(block.data(), block.size()); ++i) {
    }
  } else if (onTmpfs) {
    ASSERT_TRUE(small->remount(MS_RDONLY));
  } else {
    ASSERT_EQ(::chmod(documents_.c_str(), 0555), 0);
  }

  report(2, 40);
  EXPECT_EQ(inMemory(), numbers(0, 40));
  if (trouble == Trouble::kMissing) {
    EXPECT_FALSE(fs::exists(documents_));
    fs::create_directories(documents_);
  } else {
    EXPECT_EQ(inFile(), numbers(0, 2));  // the write failed; the old file stands
    EXPECT_FALSE(temporariesLeft());
    if (trouble == Trouble::kFull) {
      fs::remove(documents_ + "/filler");
    } else if (onTmpfs) {
      ASSERT_TRUE(small->remount(0));
    } else {
      ASSERT_EQ(::chmod(documents_.c_str(), 0755), 0);
    }
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
  EXPECT_TRUE(QXLogCenter::center().actionLog().empty());
  for (const char* name : stale) EXPECT_FALSE(fs::exists(documentsPath(name))) << name;
  for (const char* name : kept) EXPECT_TRUE(fs::exists(documentsPath(name))) << name;
}

}  // namespace
}  // namespace qxlog::testing
