// The field legend against the records the library really builds: every key
// of every record family, of the play actions and of the header has a
// meaning, so the legend cannot fall behind the builders unnoticed.
#include <gtest/gtest.h>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "collector/legend/FieldLegend.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

using collector::LegendTable;

class LegendTest : public LibraryTest {};

void expectEveryKeyExplained(LegendTable table, const Dictionary& record) {
  for (const auto& [key, value] : record) {
    EXPECT_FALSE(collector::meaningOf(table, key).empty())
        << "no meaning for " << key << " in table " << static_cast<int>(table);
  }
}

TEST_F(LegendTest, EveryKeyOfEveryRecordFamilyHasAMeaning) {
  QXLogCenter& center = QXLogCenter::center();
  center.format().setLimitLogCount(1000);
  logEnvReady(true);
  recordLaunchLogWithPushId("cold", "push-1");
  recordActionLog("home.open", "3");
  recordNetworkLog("http://127.0.0.1/api", 120, "500");
  QXLogCenterSaveActionStartTime("m1");
  recordDownLog("m1", "http://127.0.0.1/m1.mp4", "film", "10", "/data/m1", "1");
  recordMoviePlayLog("m1", "http://127.0.0.1/m1.m3u8", "home", false, nullptr);
  recordPlayActionLog("5", "1", "1000", "2000", "0", "10", "1000");
  center.makePlayLog();

  const std::vector<LegendTable> expected = {LegendTable::kLaunch, LegendTable::kAction,
                                             LegendTable::kNetwork, LegendTable::kDownload,
                                             LegendTable::kPlay};
  Array records = center.actionLog();
  ASSERT_EQ(records.size(), expected.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    const Dictionary& record = *records[i].asDictionary();
    EXPECT_EQ(collector::legendTableOf(record), expected[i]) << i;
    expectEveryKeyExplained(expected[i], record);
  }
  const Value* actions = records.back().asDictionary()->find("p");
  ASSERT_TRUE(actions != nullptr && actions->asArray() != nullptr);
  expectEveryKeyExplained(LegendTable::kPlayAction, *(*actions->asArray())[0].asDictionary());
  expectEveryKeyExplained(LegendTable::kHeader, center.format().publicLog());
}

TEST(LegendTextTest, ExplainsValuesBesideTheirMeaningAndListsEveryTable) {
  Dictionary download = strings({{"a_t", "3"}, {"a_13", "2048.00"}, {"zz", "odd"}});
  EXPECT_EQ(collector::explainRecord(download, "  "),
            "  a_t   3   # record type: 3 download\n"
            "  a_13  2048.00   # average rate since the start, KB/s\n"
            "  zz    odd\n");
  std::string legend = collector::legendText();
  for (const char* title : {"header", "launch record", "action record", "network record",
                            "download record", "play header", "play action"}) {
    EXPECT_NE(legend.find(title), std::string::npos) << title;
  }
}

}  // namespace
}  // namespace qxlog::testing
