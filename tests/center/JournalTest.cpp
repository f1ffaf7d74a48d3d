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

using Outcome = QXLogCenter::BatchOutcome;
const std::string kSegment = "QXLogJournal.0000000001";

class JournalTest : public UploadTest {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    logEnvReady(true);
    restartAtLeastOnce();
  }
  void restartAtLeastOnce() {
    restart();
    format().setPushLogUrl(server_->url("/log"));
    format().setLogEncryptionKey(kTestKey);
    format().setLimitLogCount(100);
    dropped_ = 0;
    center().setDeliveryHandler([this](Outcome outcome, std::size_t records, const std::string&) {
      if (outcome == Outcome::kDropped) dropped_ += records;
    });
    center().setDelivery(QXLogCenter::Delivery::kAtLeastOnce);
  }
  void report(int first, int count) {
    for (int i = first; i < first + count; ++i) recordActionLog(std::to_string(i).c_str(), "");
  }
  std::string segmentBytes() const {
    std::ifstream in(documentsPath(kSegment), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  void setSegmentBytes(const std::string& bytes) const {
    std::ofstream(documentsPath(kSegment), std::ios::binary | std::ios::trunc) << bytes;
  }
  // The offset where frame `index` of the segment starts.
  std::size_t frameStart(int index) const {
    std::string bytes = segmentBytes();
    std::size_t at = 0;
    for (int i = 0; i < index; ++i) at = bytes.find("QXJ1", at + 1);
    return at;
  }

  std::size_t dropped_ = 0;
};

struct Damage {
  const char* name;
  void (*apply)(std::string& bytes, std::size_t second, std::size_t third);
  std::vector<std::string> left;
};

class JournalDamageTest : public JournalTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(JournalDamageTest, DamageIsSkippedCountedAndCutAndTheRestIsDelivered) {
  report(0, 3);
  std::string bytes = segmentBytes();
  GetParam().apply(bytes, frameStart(1), frameStart(2));
  setSegmentBytes(bytes);

  restartAtLeastOnce();
  EXPECT_EQ(items(center().actionLog()), GetParam().left);
  settle();
  EXPECT_EQ(dropped_, 1u);
  EXPECT_EQ(console_->countStartingWith("QXLog: journal"), 1u);

  // Appends follow whole frames: a later record reads back, with no new damage.
  report(3, 1);
  restartAtLeastOnce();
  std::vector<std::string> expected = GetParam().left;
  expected.push_back("3");
  EXPECT_EQ(items(center().actionLog()), expected);
  ASSERT_EQ(center().flush(5000), 0);
  EXPECT_EQ(sentItems(0), expected);
  EXPECT_EQ(dropped_, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Damages, JournalDamageTest,
    ::testing::Values(
        Damage{"BitFlipInAPayload",
               [](std::string& b, std::size_t second, std::size_t) { b[second + 14] ^= 0x10; },
               {"0", "2"}},
        Damage{"BitFlipInALength",
               [](std::string& b, std::size_t second, std::size_t) { b[second + 7] ^= 0x40; },
               {"0", "2"}},
        Damage{"TornTail",
               [](std::string& b, std::size_t, std::size_t) { b.resize(b.size() - 5); },
               {"0", "1"}},
        Damage{"HeaderOnlyTail",
               [](std::string& b, std::size_t, std::size_t third) { b.resize(third + 6); },
               {"0", "1"}},
        Damage{"GarbageAppended",
               [](std::string& b, std::size_t, std::size_t) { b += "QXJ1\xff\xff garbage"; },
               {"0", "1", "2"}},
        Damage{"GarbageBetweenFrames",
               [](std::string& b, std::size_t, std::size_t third) {
                 b.insert(third, "QXJ1QXJ1 not a frame");
               },
               {"0", "1", "2"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(JournalTest, ASegmentThatIsAFifoOrALinkIsSkippedWithoutBlocking) {
  report(0, 2);
  std::filesystem::remove(documentsPath(kSegment));
  ASSERT_EQ(::mkfifo(documentsPath(kSegment).c_str(), 0644), 0);
  std::filesystem::create_symlink("/dev/zero", documentsPath("QXLogJournal.0000000002"));
  restartAtLeastOnce();
  EXPECT_TRUE(center().actionLog().empty());
  settle();
  EXPECT_EQ(dropped_, 2u);
  // New records go to a segment of their own.
  report(2, 1);
  restartAtLeastOnce();
  EXPECT_EQ(items(center().actionLog()), std::vector<std::string>{"2"});
}

TEST_F(JournalTest, ASealedBatchIsPostedWithTheSameBytesAfterARestart) {
  format().setPushLogUrl(refusedUrl("/log"));
  format().setLimitLogCount(2);
  report(0, 2);
  settle();  // cut, sealed, and its upload failed
  std::ifstream in(documentsPath("QXLogJournal.inflight"), std::ios::binary);
  std::optional<center::SealedBatch> sealed =
      center::SealedBatch::decode(std::string(std::istreambuf_iterator<char>(in), {}));
  ASSERT_TRUE(sealed.has_value());
  EXPECT_EQ(sealed->records, 2u);

  restartAtLeastOnce();
  report(2, 1);  // stored after the restart: not part of the sealed batch
  ASSERT_EQ(center().flush(5000), 0);
  ASSERT_EQ(server_->requestCount(), 2u);
  EXPECT_EQ(server_->requests()[0].param("log_data"), sealed->logData);
  EXPECT_EQ(server_->requests()[0].param("token"), sealed->token);
  EXPECT_EQ(sentItems(0), (std::vector<std::string>{"0", "1"}));
  EXPECT_EQ(sentItems(1), std::vector<std::string>{"2"});
  EXPECT_FALSE(std::filesystem::exists(documentsPath("QXLogJournal.inflight")));
}

TEST_F(JournalTest, PendingRecordsCrossAChangeOfDeliveryOnceEachWay) {
  restart();  // described
  format().setPushLogUrl(refusedUrl("/log"));
  format().setLimitLogCount(100);
  report(0, 2);
  restartAtLeastOnce();
  format().setPushLogUrl(refusedUrl("/log"));
  report(2, 1);
  EXPECT_EQ(items(center().actionLog()), (std::vector<std::string>{"0", "1", "2"}));
  EXPECT_FALSE(std::filesystem::exists(documentsPath(kActionFile)));

  restart();  // described again: the journal's records join the queue file
  EXPECT_EQ(items(center().actionLog()), (std::vector<std::string>{"0", "1", "2"}));
  EXPECT_EQ(items(readQueueFile(kActionFile).value_or(Array())),
            (std::vector<std::string>{"0", "1", "2"}));
  EXPECT_FALSE(center::Journal::presentIn(center().env()));
  restartAtLeastOnce();
  EXPECT_EQ(items(center().actionLog()), (std::vector<std::string>{"0", "1", "2"}));
}

TEST_F(JournalTest, SegmentsRollAndGoOnceEverythingInThemIsSettled) {
  const std::string big = R"({"a_1":")" + std::string(100000, 'x') + R"("})";
  std::size_t second = 0;
  {
    center::Journal journal(center().env(), nullptr);
    for (int i = 0; i < 45; ++i) ASSERT_TRUE(journal.append(big));
    ASSERT_FALSE(journal.append(std::string(center::Journal::kMaxFrameBytes + 1, ' ')));
    EXPECT_TRUE(std::filesystem::exists(documentsPath("QXLogJournal.0000000002")));
    // Settling the last record of the first segment removes it.
    while (journal.pending()[second].end.segment == 1) ++second;
    ASSERT_GT(second, 30u);
    journal.settleThrough(journal.pending()[second - 1].end);
    EXPECT_EQ(journal.pending().size(), 45 - second);
  }
  EXPECT_FALSE(std::filesystem::exists(documentsPath(kSegment)));
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
  EXPECT_EQ(sentItems(2), (std::vector<std::string>{"0", "1", "2"}));

  format().setPushLogUrl(refusedUrl("/log"));
  report(3, 2);
  EXPECT_EQ(QXLogFlush(20), 2);
  EXPECT_EQ(items(center().actionLog()), (std::vector<std::string>{"3", "4"}));

  restart();  // described: one submission now
  format().setPushLogUrl(server_->url("/log"));
  format().setLogEncryptionKey(kTestKey);
  format().setLimitLogCount(100);
  report(5, 2);
  EXPECT_EQ(center().flush(5000), 0);
  EXPECT_EQ(sentItems(3), (std::vector<std::string>{"3", "4", "5", "6"}));
}

TEST_F(JournalTest, SegmentsStayShortWhileRecordsAreSettledAsTheyCome) {
  const std::string record = R"({"a_1":")" + std::string(1000, 'x') + R"("})";
  center::Journal journal(center().env(), nullptr);
  for (int round = 0; round < 2; ++round) {
    // Below the short bound the settled segment stays; past it, it goes.
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(journal.append(record));
    journal.settleThrough(journal.pending().back().end);
    EXPECT_TRUE(std::filesystem::exists(documentsPath(kSegment)));
  }
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(journal.append(record));
  journal.settleThrough(journal.pending().back().end);
  EXPECT_FALSE(std::filesystem::exists(documentsPath(kSegment)));
  ASSERT_TRUE(journal.append(R"({"a_1":"next"})"));
  EXPECT_EQ(journal.pending().back().end.segment, 2u);
  center::Journal reopened(center().env(), nullptr);
  EXPECT_EQ(reopened.open(), 0u);
  ASSERT_EQ(reopened.pending().size(), 1u);
  EXPECT_EQ(*reopened.pending().front().payload, R"({"a_1":"next"})");
}

}  // namespace
}  // namespace qxlog::testing
