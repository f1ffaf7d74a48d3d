// The at-least-once journal on disk: damage anywhere is skipped and counted,
// a sealed batch is posted with the same bytes after a restart, pending
// records cross a change of delivery once, and flush.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "QXLog/QXLog.h"
#include "QXLog/center/Journal.h"
#include "QXLog/center/SealedBatch.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

namespace fs = std::filesystem;
const std::string kSegment = "QXLogJournal.0000000001";

class JournalTest : public UploadTest {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    logEnvReady(true);
    restartAtLeastOnce();
  }
  void restartAtLeastOnce() {
    UploadTest::restartAtLeastOnce();
    format().setLimitLogCount(100);
  }
  Items queued() { return items(center().actionLog()); }
  std::string segment() const { return files_->read(documentsPath(kSegment)).value_or(""); }
};

using P = std::size_t;
struct Damage {
  const char* name;
  Items left;  // the records that read back
  // Damages the segment's bytes, given where its second and third frames start.
  void (*apply)(std::string& bytes, P second, P third);
};

class JournalDamageTest : public JournalTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(JournalDamageTest, DamageIsSkippedCountedAndCutAndTheRestIsDelivered) {
  report(0, 3);
  std::string bytes = segment();
  std::size_t second = bytes.find("QXJ1", 1), third = bytes.find("QXJ1", second + 1);
  GetParam().apply(bytes, second, third);
  std::ofstream(documentsPath(kSegment), std::ios::binary | std::ios::trunc) << bytes;

  restartAtLeastOnce();
  EXPECT_EQ(queued(), GetParam().left);
  settle();
  EXPECT_EQ(totals(), "C0 D1 ");
  EXPECT_EQ(console_->countStartingWith("QXLog: journal"), 1u);

  // Appends follow whole frames: a later record reads back, with no new damage.
  report(3, 1);
  restartAtLeastOnce();
  Items expected = GetParam().left;
  expected.push_back("3");
  EXPECT_EQ(queued(), expected);
  ASSERT_EQ(center().flush(5000), 0);
  EXPECT_EQ(sentItems(0), expected);
  EXPECT_EQ(totals(), "C" + std::to_string(expected.size()) + " D0 ");
}

using B = std::string&;
INSTANTIATE_TEST_SUITE_P(
    Damages, JournalDamageTest,
    ::testing::Values(
        Damage{"BitFlipInAPayload", {"0", "2"}, [](B b, P at, P) { b[at + 14] ^= 0x10; }},
        Damage{"BitFlipInALength", {"0", "2"}, [](B b, P at, P) { b[at + 7] ^= 0x40; }},
        Damage{"TornTail", {"0", "1"}, [](B b, P, P) { b.resize(b.size() - 5); }},
        Damage{"HeaderOnlyTail", {"0", "1"}, [](B b, P, P at) { b.resize(at + 6); }},
        Damage{"GarbageAppended", {"0", "1", "2"}, [](B b, P, P) { b += "QXJ1\xff\xff garbage"; }},
        Damage{"GarbageBetweenFrames",
               {"0", "1", "2"},
               [](B b, P, P at) { b.insert(at, "QXJ1QXJ1 not a frame"); }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(JournalTest, ASegmentThatIsAFifoOrALinkIsSkippedWithoutBlocking) {
  report(0, 2);
  fs::remove(documentsPath(kSegment));
  ASSERT_EQ(::mkfifo(documentsPath(kSegment).c_str(), 0644), 0);
  fs::create_symlink("/dev/zero", documentsPath("QXLogJournal.0000000002"));
  restartAtLeastOnce();
  EXPECT_TRUE(queued().empty());
  settle();
  EXPECT_EQ(totals(), "C0 D2 ");
  report(2, 1);  // to a segment of its own
  restartAtLeastOnce();
  EXPECT_EQ(queued(), Items{"2"});
}

TEST_F(JournalTest, ASealedBatchIsPostedWithTheSameBytesAfterARestart) {
  format().setPushLogUrl(refusedUrl("/log"));
  format().setLimitLogCount(2);
  reportAndSettle(0, 2);  // cut, sealed, and its upload failed
  std::optional<center::SealedBatch> sealed = center::SealedBatch::decode(
      files_->read(documentsPath("QXLogJournal.inflight")).value_or(""));
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(sealed->records, 2u);

  restartAtLeastOnce();
  report(2, 1);  // stored after the restart: not part of the sealed batch
  ASSERT_EQ(center().flush(5000), 0);
  ASSERT_EQ(server_->requestCount(), 2u);
  EXPECT_EQ(server_->requests()[0].batch(), std::pair(sealed->logData, sealed->token));
  EXPECT_EQ(allSentItems(), numbers(0, 3));
  EXPECT_EQ(sentItems(1), Items{"2"});
  EXPECT_FALSE(fs::exists(documentsPath("QXLogJournal.inflight")));
}

TEST_F(JournalTest, PendingRecordsCrossAChangeOfDeliveryOnceEachWay) {
  restart();  // described
  format().setPushLogUrl(refusedUrl("/log"));
  format().setLimitLogCount(100);
  report(0, 2);
  restartAtLeastOnce();
  format().setPushLogUrl(refusedUrl("/log"));
  report(2, 1);
  EXPECT_EQ(queued(), numbers(0, 3));
  EXPECT_FALSE(fs::exists(documentsPath(kActionFile)));

  restart();  // described again: the journal's records join the queue file
  EXPECT_EQ(queued(), numbers(0, 3));
  EXPECT_EQ(items(readQueueFile(kActionFile).value_or(Array())), numbers(0, 3));
  EXPECT_FALSE(center::Journal::presentIn(center().env()));
  restartAtLeastOnce();
  EXPECT_EQ(queued(), numbers(0, 3));
}

TEST_F(JournalTest, SegmentsRollAndGoOnceEverythingInThemIsSettled) {
  const std::string big = R"({"a_1":")" + std::string(100000, 'x') + R"("})";
  std::size_t second = 0;
  {
    center::Journal journal(center().env(), nullptr);
    for (int i = 0; i < 45; ++i) ASSERT_TRUE(journal.append(big));
    ASSERT_FALSE(journal.append(std::string(center::Journal::kMaxFrameBytes + 1, ' ')));
    EXPECT_TRUE(fs::exists(documentsPath("QXLogJournal.0000000002")));
    // Settling the last record of the first segment removes it.
    while (journal.pending()[second].end.segment == 1) ++second;
    ASSERT_GT(second, 30u);
    journal.settleThrough(journal.pending()[second - 1].end);
    EXPECT_EQ(journal.pending().size(), 45 - second);
  }
  EXPECT_FALSE(fs::exists(documentsPath(kSegment)));
  center::Journal reopened(center().env(), nullptr);
  EXPECT_EQ(reopened.open(), 0u);
  EXPECT_EQ(reopened.pending().size(), 45 - second);
  ASSERT_TRUE(reopened.append(R"({"a_1":"next"})"));
  EXPECT_EQ(reopened.pending().back().end.segment, 2u);
}

TEST_F(JournalTest, FlushSendsBelowTheBatchSizeAndCountsWhatDidNotArrive) {
  // A batch waiting for its retry's backoff goes at once on a flush.
  server_->script({503, "text/plain", "busy"});
  report(100, 1);
  EXPECT_EQ(center().flush(20), 1);
  EXPECT_EQ(center().flush(5000), 0);
  EXPECT_EQ(server_->requestCount(), 2u);

  report(0, 3);
  EXPECT_EQ(center().flush(5000), 0);
  EXPECT_EQ(sentItems(2), numbers(0, 3));

  format().setPushLogUrl(refusedUrl("/log"));
  report(3, 2);
  EXPECT_EQ(QXLogFlush(20), 2);
  EXPECT_EQ(queued(), numbers(3, 2));

  restart();  // described: one submission now
  pointAtServer();
  format().setLimitLogCount(100);
  report(5, 2);
  EXPECT_EQ(center().flush(5000), 0);
  EXPECT_EQ(sentItems(3), numbers(3, 4));
}

TEST_F(JournalTest, SegmentsStayShortWhileRecordsAreSettledAsTheyCome) {
  const std::string record = R"({"a_1":")" + std::string(1000, 'x') + R"("})";
  center::Journal journal(center().env(), nullptr);
  // Below the short bound the settled segment stays; past it, it goes.
  for (bool stays : {true, true, false}) {
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(journal.append(record));
    journal.settleThrough(journal.pending().back().end);
    EXPECT_EQ(fs::exists(documentsPath(kSegment)), stays);
  }
  ASSERT_TRUE(journal.append(R"({"a_1":"next"})"));
  EXPECT_EQ(journal.pending().back().end.segment, 2u);
  center::Journal reopened(center().env(), nullptr);
  EXPECT_EQ(reopened.open(), 0u);
  ASSERT_EQ(reopened.pending().size(), 1u);
  EXPECT_EQ(*reopened.pending().front().payload, R"({"a_1":"next"})");
}

}  // namespace
}  // namespace qxlog::testing
