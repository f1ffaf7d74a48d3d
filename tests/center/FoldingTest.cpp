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
  std::string actions() {
    std::string out;
    for (const Value& record : center().actionLog()) out += json(*record.asDictionary());
    return out;
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
  EXPECT_EQ(actions(), R"({"a_t":"1","a_7":"m1","p":[{"p_2":"p1"},{"p_2":"p2"}]})"
                       R"({"a_t":"1","a_7":"m1","p":[{"p_2":"p3"}]})");
  // The header itself is not changed by folding.
  EXPECT_EQ(json(*center().currentPlayHeader()), R"({"a_t":"1","a_7":"m1"})");
  EXPECT_TRUE(center().playActionLog().empty());
  EXPECT_FALSE(std::filesystem::exists(documentsPath("USERPlayActionStatisticalLog.plist")));

  // A header that already holds actions is extended.
  Dictionary header = strings({{"a_t", "1"}});
  header.set("p", Value(Array{Value(play("old"))}));
  center().setActionLog(Array());
  center().setCurrentPlayHeader(header);
  center().storePlayLog(play("new"));
  center().makePlayLog();
  EXPECT_EQ(actions(), R"({"a_t":"1","p":[{"p_2":"old"},{"p_2":"new"}]})");
}

TEST_F(FoldingTest, TheBatchSizeDecidesWhenAStoreFolds) {
  const struct {
    int64_t limit;
    bool dev;
    std::size_t pendingAfterOne, pendingAfterTwo;
  } cases[] = {{1, false, 0, 0}, {-1, false, 1, 2}, {50, true, 1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.limit);
    TearDown();
    SetUp();
    center().format().setLimitLogCount(c.limit);
    center().format().setIsDev(c.dev);  // fixes the batch size at two
    center().setCurrentPlayHeader(strings({{"a_t", "5"}}));
    center().storePlayLog(play("p1"));
    EXPECT_EQ(center().playActionLog().size(), c.pendingAfterOne);
    center().storePlayLog(play("p2"));
    EXPECT_EQ(center().playActionLog().size(), c.pendingAfterTwo);
  }
  // At batch size 1 the play record's own store folds; the store of the
  // folded header reaches the batch size again and submits it.
  TearDown();
  SetUp();
  center().setCurrentPlayHeader(strings({{"a_t", "5"}}));
  center().storePlayLog(play("p1"));
  EXPECT_TRUE(center().actionLog().empty());
  ASSERT_FALSE(console_->lines().empty());
  EXPECT_NE(console_->lines().back().find(R"("a":[{"a_t":"5","p":[{"p_2":"p1"}]}])"),
            std::string::npos);
}

}  // namespace
}  // namespace qxlog::testing
