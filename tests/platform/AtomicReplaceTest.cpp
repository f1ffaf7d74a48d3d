// Replacing a file whole: by exchange or by rename, the path always holds the
// old or the new contents, nothing is left beside it, and the flush to the
// disk follows off the writer's thread, coalesced.
#include <gtest/gtest.h>

#include <filesystem>

#include "QXLog/platform/DurableFlush.h"
#include "QXLog/platform/Files.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

namespace fs = std::filesystem;
using platform::DurableFlush;

class AtomicReplaceTest : public LibraryTest {
 protected:
  void TearDown() override {
    platform::useRenameExchange(true);
    LibraryTest::TearDown();
  }
  std::vector<std::string> directoryListing() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(documents_)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
};

TEST_F(AtomicReplaceTest, ExchangeAndRenameLeaveTheNewContentsAndNothingElse) {
  for (bool exchange : {true, false}) {
    SCOPED_TRACE(exchange);
    platform::useRenameExchange(exchange);
    std::string path = documentsPath(exchange ? "exchanged.plist" : "renamed.plist");
    ASSERT_TRUE(platform::writeFileAtomically(path, "first"));  // nothing to exchange with
    ASSERT_TRUE(platform::writeFileAtomically(path, std::string(100000, 'x')));
    ASSERT_TRUE(platform::writeFileAtomically(path, "third"));
    EXPECT_EQ(platform::readFile(path), "third");
  }
  EXPECT_EQ(directoryListing(), (std::vector<std::string>{"exchanged.plist", "renamed.plist"}));
  // A directory that is gone fails the write and leaves nothing behind.
  EXPECT_FALSE(platform::writeFileAtomically(documentsPath("missing/x.plist"), "x"));
}

TEST_F(AtomicReplaceTest, FlushesAreCoalescedIntoOneTaskAtATime) {
  DurableFlush& flush = DurableFlush::instance();
  flush.setEnabled(true);
  flush.setExecutor(dispatcher_->globalQueue());
  int before = flush.rounds();
  for (int i = 0; i < 50; ++i) {
    platform::writeFileAtomically(documentsPath(i % 2 ? "a.plist" : "b.plist"), "x");
  }
  EXPECT_EQ(dispatcher_->pending(), 1u);  // one flush gathers all fifty
  dispatcher_->advance(DurableFlush::kGathering - std::chrono::milliseconds(1));
  EXPECT_EQ(flush.rounds(), before);
  dispatcher_->advance(std::chrono::milliseconds(1));
  EXPECT_EQ(flush.rounds(), before + 1);
  EXPECT_EQ(dispatcher_->pending(), 0u);

  platform::writeFileAtomically(documentsPath("a.plist"), "y");  // a new round
  dispatcher_->advance(DurableFlush::kGathering);
  EXPECT_EQ(flush.rounds(), before + 2);
  fs::remove(documentsPath("a.plist"));  // a file gone before its flush is fine
  platform::writeFileAtomically(documentsPath("b.plist"), "z");
  fs::remove(documentsPath("b.plist"));
  dispatcher_->advance(DurableFlush::kGathering);
  EXPECT_EQ(flush.rounds(), before + 3);
}

}  // namespace
}  // namespace qxlog::testing
