#include <gtest/gtest.h>

#include <filesystem>

#include "QXLog/QXLogCenter.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

class FoldingTest : public LibraryTest {
 protected:
  QXLogCenter& center() { return QXLogCenter::center(); }
  static Dictionary play(const char* id) { return strings({{"p_2", id}}); }
  static Array actionsUnder(const Value& record) {
    const Value* actions = record.asDictionary()->find("p");
    return actions != nullptr && actions->isArray() ? *actions->asArray() : Array();
  }
};

TEST_F(FoldingTest, EachFoldCarriesOnlyTheRecordsSinceThePreviousOne) {
  center().format().setLimitLogCount(1000);
  center().setCurrentPlayHeader(strings({{"a_t", "1"}, {"a_7", "m1"}}));
  center().storePlayLog(play("p1"));
  center().storePlayLog(play("p2"));
  center().makePlayLog();
  center().storePlayLog(play("p3"));
  center().makePlayLog();

  Array queue = center().actionLog();
  ASSERT_EQ(queue.size(), 2u);
  EXPECT_EQ(field(queue[0], "a_7"), "m1");
  EXPECT_EQ(actionsUnder(queue[0]), (Array{Value(play("p1")), Value(play("p2"))}));
  EXPECT_EQ(actionsUnder(queue[1]), Array{Value(play("p3"))});
  // The header itself is not changed by folding.
  EXPECT_EQ(center().currentPlayHeader()->find("p"), nullptr);
  EXPECT_TRUE(center().playActionLog().empty());
  EXPECT_FALSE(std::filesystem::exists(documentsPath("USERPlayActionStatisticalLog.plist")));
}

TEST_F(FoldingTest, AHeaderThatAlreadyHoldsActionsIsExtended) {
  center().format().setLimitLogCount(1000);
  Dictionary header = strings({{"a_t", "1"}});
  header.set("p", Value(Array{Value(play("old"))}));
  center().setCurrentPlayHeader(header);
  center().storePlayLog(play("new"));
  center().makePlayLog();
  EXPECT_EQ(actionsUnder(center().actionLog().at(0)),
            (Array{Value(play("old")), Value(play("new"))}));
}

TEST_F(FoldingTest, NothingToFoldChangesNothing) {
  center().format().setLimitLogCount(1000);
  center().makePlayLog();  // no header, empty queue
  center().setCurrentPlayHeader(strings({{"a_t", "1"}}));
  center().makePlayLog();  // header, empty queue
  EXPECT_TRUE(center().actionLog().empty());

  center().setCurrentPlayHeader(std::nullopt);
  center().storePlayLog(play("waiting"));
  center().makePlayLog();  // queue, no header: the records stay
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_EQ(center().playActionLog().size(), 1u);
  EXPECT_TRUE(console_->lines().empty());
}

TEST_F(FoldingTest, StoringAtTheBatchSizeFoldsAndThenSubmits) {
  // Default batch size 1: the play record's own store reaches it and folds;
  // the store of the folded header reaches it again and submits the header.
  center().setCurrentPlayHeader(strings({{"a_t", "5"}}));
  center().storePlayLog(play("p1"));
  EXPECT_TRUE(center().playActionLog().empty());
  EXPECT_TRUE(center().actionLog().empty());
  std::vector<std::string> lines = console_->lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_NE(lines.back().find(R"("a":[{"a_t":"5","p":[{"p_2":"p1"}]}])"), std::string::npos)
      << lines.back();
}

TEST_F(FoldingTest, ANegativeBatchSizeIsNeverReached) {
  center().format().setLimitLogCount(-1);
  center().setCurrentPlayHeader(strings({{"a_t", "1"}}));
  center().storePlayLog(play("p1"));
  EXPECT_EQ(center().playActionLog().size(), 1u);  // not folded
}

TEST_F(FoldingTest, DevelopmentModeNeedsTwoPendingRecords) {
  center().format().setIsDev(true);
  center().setCurrentPlayHeader(strings({{"a_t", "1"}}));
  center().storePlayLog(play("p1"));
  EXPECT_EQ(center().playActionLog().size(), 1u);
  center().storePlayLog(play("p2"));
  EXPECT_TRUE(center().playActionLog().empty());
}

}  // namespace
}  // namespace qxlog::testing
