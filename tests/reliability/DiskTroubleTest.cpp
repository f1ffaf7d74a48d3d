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
#include "QXLog/platform/Files.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

namespace fs = std::filesystem;

constexpr const char* kActionFile = "UserStatisticalLog.plist";

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
  bool remount(unsigned long flags, const char* options) {
    return ::mount("tmpfs", directory_.c_str(), "tmpfs", MS_REMOUNT | flags, options) == 0;
  }

 private:
  std::string directory_;
  bool mounted_ = false;
};

class DiskTroubleTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    QXLogCenter::center().format().setLimitLogCount(1000);  // nothing is uploaded
    logEnvReady(true);
  }
  void report(int from, int to) {
    for (int i = from; i < to; ++i) recordActionLog(std::to_string(i).c_str(), "1");
  }
  std::vector<std::string> items(const Array& queue) {
    std::vector<std::string> result;
    for (const Value& record : queue) result.push_back(field(record, "a_1"));
    return result;
  }
  std::vector<std::string> numbers(int from, int to) {
    std::vector<std::string> result;
    for (int i = from; i < to; ++i) result.push_back(std::to_string(i));
    return result;
  }
  // The records of the action queue file; none when it holds no array.
  std::vector<std::string> fileItems() {
    return items(readQueueFile(kActionFile).value_or(Array()));
  }
};

TEST_F(DiskTroubleTest, AMissingDirectoryKeepsReportsInMemoryUntilItReturns) {
  fs::remove_all(documents_);
  report(0, 3);
  EXPECT_EQ(items(QXLogCenter::center().actionLog()), numbers(0, 3));
  EXPECT_FALSE(fs::exists(documents_));

  fs::create_directories(documents_);
  report(3, 4);
  EXPECT_EQ(fileItems(), numbers(0, 4));
  restart();
  EXPECT_EQ(items(QXLogCenter::center().actionLog()), numbers(0, 4));
}

TEST_F(DiskTroubleTest, AReadOnlyDirectoryKeepsTheLastWrittenFile) {
  report(0, 2);
  std::optional<SmallFileSystem> readOnly;
  if (::geteuid() == 0) {
    // Root ignores permission bits: a read-only file system stands in.
    std::string previous = *platform::readFile(documentsPath(kActionFile));
    readOnly.emplace(documents_, "size=1m");
    if (!readOnly->mounted()) GTEST_SKIP() << "cannot mount a tmpfs";
    ASSERT_TRUE(platform::writeFileAtomically(documentsPath(kActionFile), previous));
    ASSERT_TRUE(readOnly->remount(MS_RDONLY, "size=1m"));
  } else {
    ASSERT_EQ(::chmod(documents_.c_str(), 0555), 0);
  }
  report(2, 5);
  EXPECT_EQ(items(QXLogCenter::center().actionLog()), numbers(0, 5));
  EXPECT_EQ(fileItems(), numbers(0, 2));  // the write failed; the old file stands
  for (const fs::directory_entry& entry : fs::directory_iterator(documents_)) {
    EXPECT_EQ(entry.path().filename().string().find(".tmp-"), std::string::npos);
  }

  if (readOnly) {
    ASSERT_TRUE(readOnly->remount(0, "size=1m"));
  } else {
    ASSERT_EQ(::chmod(documents_.c_str(), 0755), 0);
  }
  report(5, 6);
  EXPECT_EQ(fileItems(), numbers(0, 6));
}

TEST_F(DiskTroubleTest, AFullFileSystemKeepsReportsInMemoryAndTheOldFile) {
  SmallFileSystem small(documents_, "size=64k");
  if (!small.mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
  report(0, 2);
  ASSERT_EQ(fileItems(), numbers(0, 2));
  {
    // Fills what is left.
    std::ofstream filler(documents_ + "/filler", std::ios::binary);
    std::string block(4096, 'f');
    for (int i = 0; i < 64 && filler.write(block.data(), block.size()); ++i) {
    }
  }
  report(2, 40);
  EXPECT_EQ(items(QXLogCenter::center().actionLog()), numbers(0, 40));
  EXPECT_EQ(fileItems(), numbers(0, 2));
  for (const fs::directory_entry& entry : fs::directory_iterator(documents_)) {
    EXPECT_EQ(entry.path().filename().string().find(".tmp-"), std::string::npos);
  }

  fs::remove(documents_ + "/filler");
  report(40, 41);
  EXPECT_EQ(fileItems(), numbers(0, 41));
  restart();
  EXPECT_EQ(items(QXLogCenter::center().actionLog()), numbers(0, 41));
}

TEST_F(DiskTroubleTest, LoadingAQueueClearsOnlyItsOwnInterruptedWrites) {
  const std::vector<std::string> stale = {"UserStatisticalLog.plist.tmp-a1B2c3",
                                          "UserStatisticalLog.plist.tmp-zzzzzz"};
  const std::vector<std::string> kept = {"UserStatisticalLog.plist.tmp-toolong1",
                                         "USERPlayActionStatisticalLog.plist.tmp-a1B2c3",
                                         "UserStatisticalLog.plist.bak", "notes.txt"};
  for (const auto& name : stale) std::ofstream(documentsPath(name)) << "<plist";
  for (const auto& name : kept) std::ofstream(documentsPath(name)) << "x";
  EXPECT_TRUE(QXLogCenter::center().actionLog().empty());
  for (const auto& name : stale) EXPECT_FALSE(fs::exists(documentsPath(name))) << name;
  for (const auto& name : kept) EXPECT_TRUE(fs::exists(documentsPath(name))) << name;
}

}  // namespace
}  // namespace qxlog::testing
