// The two deliveries side by side against a real log server: what each keeps,
// retries and drops, and what the delivery handler is told. Tests run at least
// once unless they choose the described delivery.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>

#include "QXLog/QXLog.h"
#include "QXLog/center/DiagnosisQueue.h"
#include "QXLog/center/Journal.h"
#include "QXLog/center/RetryBackoff.h"
#include "QXLog/serial/Json.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Outcome = QXLogCenter::BatchOutcome;
using Flag = std::shared_ptr<std::atomic<bool>>;
constexpr const char* kDiagnoses = "QXLogDiagnoses.json";

void diagnose(std::size_t i) {
  recordDiagnosLog(std::to_string(i).c_str(), "cause", "p3", "p4", "p5", "p6", "p7", "p8");
}

class DeliveryTest : public UploadTest {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    logEnvReady(true);
    watchDeliveries();
    atLeastOnce();
  }
  void described() { center().setDelivery(QXLogCenter::Delivery::kDescribed); }
  // The records pending in the journal, read back by a reader of its own.
  Items queuedOnDisk() {
    center::Journal journal(center().env(), nullptr);
    journal.open();
    Array records;
    for (const auto& entry : journal.pending())
      records.push_back(*serial::parseJson(*entry.payload));
    return items(records);
  }
  // The server answers `answer` while the flag stays set.
  Flag downWith(ScriptedAnswer answer) {
    auto down = std::make_shared<std::atomic<bool>>(true);
    server_->setResponder([=](const ReceivedRequest&) -> std::optional<ScriptedAnswer> {
      return *down ? std::optional(answer) : std::nullopt;
    });
    return down;
  }
  // Runs `during` while the first request is out; the flag is cleared then.
  Flag whileTheFirstIsOut(std::function<void()> during) {
    auto first = std::make_shared<std::atomic<bool>>(true);
    server_->setResponder([=](const ReceivedRequest&) -> std::optional<ScriptedAnswer> {
      if (first->exchange(false)) during();
      return std::nullopt;
    });
    return first;
  }
  // The "diagnosis_log" of each request from `from` on.
  Items diagnosesFrom(std::size_t from) const {
    Items arrived;
    std::vector<ReceivedRequest> sent = server_->requests();
    for (std::size_t i = from; i < sent.size(); ++i) {
      if (sent[i].path == "/diagnosis") arrived.push_back(sent[i].param("diagnosis_log"));
    }
    return arrived;
  }
  std::string said(const Report& r) const {
    return "CRD"[static_cast<int>(r.outcome)] + std::to_string(r.records) + " " + r.reason;
  }
};

TEST_F(DeliveryTest, RecordsStoredWhileAnUploadIsOutAreLostDescribedAndKeptAtLeastOnce) {
  described();
  format().setLimitLogCount(2);
  reportAndSettle({"a", "b", "c"});  // "c" is stored while the upload of "a" and "b" is out
  EXPECT_EQ(allSentItems(), (Items{"a", "b"}));
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_EQ(outcomes(), "C2 D1 ");

  atLeastOnce();
  report({"d", "e"});
  EXPECT_EQ(queuedOnDisk(), (Items{"d", "e"}));  // until confirmed, in memory and on disk
  settle();
  reportAndSettle({"f"});
  EXPECT_EQ(allSentItems(), (Items{"a", "b", "d", "e"}));
  EXPECT_EQ(queuedOnDisk(), Items{"f"});
  EXPECT_EQ(outcomes(), "C2 D1 C2 ");
}

TEST_F(DeliveryTest, TransportFailuresAreRetriedWithGrowingWaitsUntilConfirmed) {
  server_->script({503, "text/plain", "busy"});
  server_->script({200, "text/plain", "not json"});
  server_->script(ScriptedAnswer::json("{"));
  ASSERT_EQ(reportAndSettle({"kept"}), 1u);
  EXPECT_EQ(queuedOnDisk(), Items{"kept"});
  report({"later"});  // waits behind the batch that is out

  // Each wait is drawn from the upper half of 1 s, 2 s, 4 s.
  std::vector<int64_t> sentAt{0};
  for (int ms = 1; ms <= 8000 && server_->requestCount() < 4; ++ms) {
    dispatcher_->advance(milliseconds(1));
    if (server_->requestCount() > sentAt.size()) sentAt.push_back(ms);
  }
  ASSERT_EQ(sentAt.size(), 4u);
  // The confirmation sends what was stored meanwhile at once, in a batch of its own.
  std::vector<ReceivedRequest> sent = server_->requests();
  ASSERT_EQ(sent.size(), 5u);
  for (int i = 1; i < 4; ++i) {
    SCOPED_TRACE(i);
    EXPECT_GE(sentAt[i] - sentAt[i - 1], 500 << (i - 1));
    EXPECT_LE(sentAt[i] - sentAt[i - 1], 1000 << (i - 1));
    EXPECT_EQ(sent[i].batch(), sent[0].batch());  // the sealed batch again, byte for byte
  }
  EXPECT_EQ(sentItems(3), Items{"kept"});
  EXPECT_EQ(sentItems(4), Items{"later"});
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_EQ(outcomes(), "R1 R1 R1 C1 C1 ");
  EXPECT_EQ(reports_[0].reason, "status 503");
  // A batch's console line is written when it is sealed, not on each attempt.
  EXPECT_EQ(console_->countStartingWith("Ostra->LogContent:"), 2u);
}

TEST_F(DeliveryTest, ARefusedBatchIsTriedThreeTimesThenDroppedAlone) {
  for (int i = 0; i < 3; ++i) server_->script(ScriptedAnswer::json(R"({"operate_code":"500"})"));
  report({"refused"});
  dispatcher_->advance(seconds(10));
  EXPECT_EQ(server_->requestCount(), 3u);
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_EQ(outcomes(), "R1 R1 D1 ");
  EXPECT_EQ(reports_[2].reason, "refused: operate_code 500");
  EXPECT_EQ(console_->countStartingWith("QXLog: dropped a batch of 1 records after 3 refusals"),
            1u);
  reportAndSettle({"next"});
  EXPECT_EQ(sentItems(3), Items{"next"});
}

TEST_F(DeliveryTest, ABacklogGoesOutOldestFirstInBatchesOfFiveHundred) {
  described();
  format().setLimitLogCount(100000);
  report(0, 1200);
  restartAtLeastOnce();  // a long offline period: the backlog is on disk
  ASSERT_EQ(reportAndSettle(1200, 1), 3u);
  EXPECT_EQ(std::tuple(records(0).size(), records(2).size()), std::tuple(500u, 201u));
  EXPECT_EQ(allSentItems(), numbers(0, 1201));
  EXPECT_EQ(outcomes(), "C500 C500 C201 ");
}

TEST_F(DeliveryTest, WhatWasQueuedDuringAnOutageArrivesAfterARestart) {
  format().setPushLogUrl(refusedUrl("/log"));
  reportAndSettle({"one", "two"});
  restartAtLeastOnce();
  reportAndSettle({"three"});
  EXPECT_EQ(allSentItems(), (Items{"one", "two", "three"}));
}

TEST_F(DeliveryTest, TheQueueLimitDropsTheOldestAndCountsThem) {
  QXLogSetQueueLimit(3);
  format().setPushLogUrl(refusedUrl("/log"));
  reportAndSettle(0, 5);
  EXPECT_EQ(queuedOnDisk(), numbers(2, 3));
  EXPECT_EQ(outcomes(), "D1 D1 ");
  EXPECT_EQ(reports_[0].reason, "queue limit");
  EXPECT_EQ(console_->countStartingWith("QXLog: queue limit reached"), 2u);
}

TEST_F(DeliveryTest, AQueueLimitBelowTwoBatchesIsRaisedSoThatBatchesStillGoOut) {
  QXLogSetQueueLimit(1);
  format().setLimitLogCount(20);
  for (int round = 0; round < 8; ++round) reportAndSettle(round * 25, 25);
  EXPECT_EQ(allSentItems().size(), 200u);
  EXPECT_EQ(totals(), "C200 D0 ");
  EXPECT_EQ(console_->countStartingWith(
                "QXLog: queue limit 1 is below what one batch needs, raised to 40"),
            1u);
}

TEST_F(DeliveryTest, ARecordTooLargeForTheServerCostsThatRecordAlone) {
  format().setLimitLogCount(20);
  constexpr std::size_t kTooLarge = 20000;
  server_->setResponder([](const ReceivedRequest& request) -> std::optional<ScriptedAnswer> {
    if (request.param("log_data").size() <= kTooLarge) return std::nullopt;
    return ScriptedAnswer{413, "text/plain", "log_data: over the limit\n"};
  });
  // Digits that do not compress: the poison record alone is over the limit.
  std::minstd_rand digits(7);
  std::string poison;
  for (int i = 0; i < 60000; ++i) poison += static_cast<char>('0' + digits() % 10);
  for (int i = 0; i < 20; ++i)
    recordActionLog(i == 7 ? poison.c_str() : std::to_string(i).c_str(), "");
  dispatcher_->advance(seconds(30));

  Items delivered, expected = numbers(0, 20);
  expected.erase(expected.begin() + 7);
  std::vector<ReceivedRequest> sent = server_->requests();
  for (std::size_t i = 0; i < sent.size(); ++i) {
    if (sent[i].param("log_data").size() > kTooLarge) continue;
    for (const std::string& item : sentItems(i)) delivered.push_back(item);
  }
  EXPECT_EQ(delivered, expected);
  EXPECT_EQ(totals(), "C19 D1 ");
  ASSERT_GE(reports_.size(), 2u);
  EXPECT_EQ(reports_.back().outcome, Outcome::kConfirmed);
  EXPECT_EQ(said(reports_.end()[-2]), "D1 status 413");
  EXPECT_LE(sent.size(), 12u);
  EXPECT_TRUE(queuedOnDisk().empty());
  // One line for scripts/reliability.sh.
  std::printf(
      "poison record: reported 20, delivered %zu, handler confirmed/dropped %srequests %zu\n",
      delivered.size(), totals().c_str(), sent.size());
}

TEST_F(DeliveryTest, RetryAfterIsWaitedOn429And503WithinFiveMinutes) {
  // Status, "Retry-After", and the earliest and latest retry in milliseconds.
  for (auto [status, retryAfter, earliest, latest] :
       {std::tuple(503, "7", 7000, 7000), std::tuple(429, "2", 2000, 2000),
        std::tuple(503, "99999", 300000, 300000), std::tuple(500, "7", 500, 1000)}) {
    SCOPED_TRACE(std::to_string(status) + " " + retryAfter);  // 500: the usual backoff
    std::size_t before = server_->requestCount();
    server_->script({status, "text/plain", "later\n", {{"Retry-After", retryAfter}}});
    ASSERT_EQ(reportAndSettle({"x"}), before + 1);
    int waited = 0;
    for (; server_->requestCount() == before + 1 && waited < 400000; waited += 250) {
      dispatcher_->advance(milliseconds(250));
    }
    EXPECT_GE(waited, earliest);
    EXPECT_LE(waited, latest + 250);
  }
  EXPECT_EQ(totals(), "C4 D0 ");
}

TEST_F(DeliveryTest, WithAWrongKeyEveryRecordEndsDroppedWithTheReasonAndRetriesStop) {
  format().setLimitLogCount(20);
  server_->setFallback({400, "text/plain", "log_data: cannot decrypt\n"});
  report(0, 20);
  dispatcher_->advance(seconds(120));
  EXPECT_EQ(totals(), "C0 D20 ");
  for (const Report& r : reports_) EXPECT_EQ(r.reason, "status 400");
  EXPECT_TRUE(queuedOnDisk().empty());
  std::size_t requests = server_->requestCount();
  EXPECT_LE(requests, 40u);

  // Further batches are no longer split: three tries each, then dropped whole.
  report(0, 20);
  dispatcher_->advance(seconds(600));
  EXPECT_EQ(server_->requestCount(), requests + 3);
  EXPECT_EQ(totals(), "C0 D40 ");
  EXPECT_EQ(console_->countStartingWith("QXLog: dropped a batch of 20 records after 3 refusals"),
            1u);
}

TEST_F(DeliveryTest, DiagnosesReportedDuringAnOutageArriveAfterTheServerReturns) {
  Flag down = downWith({503, "text/plain", "store: unavailable\n"});
  for (int i = 0; i < 5; ++i) diagnose(i);
  dispatcher_->advance(seconds(4));
  std::size_t refused = server_->requestCount();
  EXPECT_GE(refused, 2u);
  EXPECT_EQ(totals(), "C0 D0 ");
  // Kept on disk meanwhile.
  std::optional<Value> kept =
      serial::parseJson(files_->read(documentsPath(kDiagnoses)).value_or(""));
  EXPECT_EQ(kept && kept->asArray() ? kept->asArray()->size() : 0, 5u);
  *down = false;
  dispatcher_->advance(seconds(30));

  std::size_t arrived = diagnosesFrom(refused).size();
  EXPECT_EQ(arrived, 5u);
  EXPECT_EQ(totals(), "C5 D0 ");
  std::printf("diagnoses outage: reported 5, arrived %zu within 30 s of the server's return\n",
              arrived);
  EXPECT_FALSE(std::filesystem::exists(documentsPath(kDiagnoses)));
}

// The C handler sees the same reports as the C++ one, on the main queue.
std::vector<std::string> g_cReports;
void onBatch(QXLogBatchOutcome outcome, size_t records, const char* reason, void* context) {
  *static_cast<int*>(context) += 1;
  g_cReports.push_back(std::to_string(outcome) + ":" + std::to_string(records) + ":" + reason);
}

TEST_F(DeliveryTest, TheCHandlerIsCalledOnTheMainQueueWithEachOutcome) {
  described();
  int calls = 0;
  QXLogSetDeliveryHandler(onBatch, &calls);
  QXLogSetDelivery(QXLogDeliveryAtLeastOnce);
  server_->script({500, "application/json", "{}"});
  report({"x"});
  EXPECT_EQ(calls, 0);  // nothing before the main queue runs
  dispatcher_->advance(seconds(2));
  EXPECT_EQ(g_cReports, (Items{"1:1:status 500", "0:1:"}));
  QXLogSetDeliveryHandler(nullptr, nullptr);
  reportAndSettle({"y"});
  EXPECT_EQ(calls, 2);
}

TEST_F(DeliveryTest, AQueueFileNestedTooDeepReadsAsEmpty) {
  std::string deep = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
  for (const char* tag : {"<array>", "</array>"})
    for (int i = 0; i < 100000; ++i) deep += tag;
  std::ofstream(documentsPath(kActionFile)) << deep << "</plist>";
  restart();
  EXPECT_TRUE(center().actionLog().empty());
}

// The diagnoses of the process that stopped come from the file alone: the old
// center's own retries are pushed past the window by a long "Retry-After".
TEST_F(DeliveryTest, DiagnosesPendingAtARestartArriveFromTheNextProcess) {
  Flag down = downWith({503, "text/plain", "away\n", {{"Retry-After", "300"}}});
  for (int i = 0; i < 4; ++i) diagnose(i);
  settle();
  std::size_t before = server_->requestCount();
  EXPECT_EQ(before, 1u);  // one out at a time, and it waits its Retry-After

  restartAtLeastOnce();
  logEnvReady(true);
  *down = false;
  format().setLimitLogCount(20);
  report({"started"});  // the first report, far from a batch
  dispatcher_->advance(seconds(30));
  // Each once (the texts are sealed, so they differ).
  Items arrived = diagnosesFrom(before);
  EXPECT_EQ(arrived.size(), 4u);
  EXPECT_EQ(std::set(arrived.begin(), arrived.end()).size(), 4u);
  EXPECT_EQ(totals(), "C4 D0 ");
  std::printf("diagnoses across a restart: kept 4, arrived %zu within 30 s of the restart\n",
              arrived.size());
  EXPECT_FALSE(std::filesystem::exists(documentsPath(kDiagnoses)));
}

// A batch or diagnosis out when the limit drops it is counted by its answer: a
// "200" confirms it, so confirmed plus dropped is what was reported.
TEST_F(DeliveryTest, ABatchOutWhenTheQueueLimitDropsItIsCountedByItsAnswer) {
  QXLogSetQueueLimit(100);
  format().setLimitLogCount(20);
  Flag first = whileTheFirstIsOut([this] { report(20, 110); });
  report(0, 20);
  dispatcher_->advance(seconds(10));
  ASSERT_FALSE(*first);
  std::size_t arrived = allSentItems().size();
  EXPECT_EQ(allSentItems().front(), "0");
  EXPECT_EQ(totals(), "C" + std::to_string(arrived) + " D" + std::to_string(130 - arrived) + " ");
}

TEST_F(DeliveryTest, ADiagnosisOutWhenTheLimitDropsItIsCountedByItsAnswer) {
  constexpr std::size_t kReported = center::DiagnosisQueue::kMaxKept + 1;
  Flag first = whileTheFirstIsOut([] {
    for (std::size_t i = 1; i < kReported; ++i) diagnose(i);
  });
  diagnose(0);
  dispatcher_->advance(seconds(10));
  ASSERT_FALSE(*first);
  EXPECT_EQ(server_->requestCount(), kReported);
  EXPECT_EQ(totals(), "C" + std::to_string(kReported) + " D0 ");
}

// A play record waits for its header, a record too large for the journal is
// dropped at once; neither holds the others back.
TEST_F(DeliveryTest, RecordsThatCannotGoYetOrEverDoNotHoldActionsBack) {
  recordPlayActionLog("4", "1", "0", "1", "0", "10", "0");
  recordActionLog("huge", std::string(center::Journal::kMaxFrameBytes, 'x').c_str());
  reportAndSettle({"after"});
  EXPECT_EQ(allSentItems(), Items{"after"});
  EXPECT_EQ(center().playActionLog().size(), 1u);  // still waiting for a play
  ASSERT_FALSE(reports_.empty());
  EXPECT_EQ(said(reports_[0]), "D1 record too large");
  EXPECT_EQ(console_->countStartingWith("QXLog: a record of "), 1u);
}

// Every wait lies in the upper half of a span that doubles from 1 s to 5
// minutes, and uses all of it; a server's Retry-After is taken as said, capped likewise.
TEST(RetryBackoffTest, WaitsFillTheUpperHalfOfADoublingSpanAndRetryAfterIsCapped) {
  center::RetryBackoff backoff(20261124);
  for (int failures : {0, 1, 2, 8, 9, 40}) {
    SCOPED_TRACE(failures);
    const double span = std::min(std::ldexp(1.0, failures), 300.0);
    double least = span, most = 0;
    for (int draw = 0; draw < 2000; ++draw) {
      const double wait = std::chrono::duration<double>(backoff.next(failures)).count();
      least = std::min(least, wait);
      most = std::max(most, wait);
    }
    EXPECT_GE(least, span / 2);
    EXPECT_LE(most, span);
    EXPECT_LT(least, span * 0.51);
    EXPECT_GT(most, span * 0.99);
  }
  EXPECT_EQ(backoff.next(3, 7), seconds(7));
  EXPECT_EQ(backoff.next(3, 0), seconds(0));
  EXPECT_EQ(backoff.next(0, 100000), seconds(300));
}

}  // namespace
}  // namespace qxlog::testing
