// The two deliveries side by side against a real log server: what each keeps,
// retries and drops, and what the delivery handler is told.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <set>

#include "QXLog/QXLog.h"
#include "QXLog/center/DiagnosisQueue.h"
#include "QXLog/center/Journal.h"
#include "QXLog/serial/Json.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Outcome = QXLogCenter::BatchOutcome;

struct Report {
  Outcome outcome;
  std::size_t records;
  std::string reason;
};

class DeliveryTest : public UploadTest {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    logEnvReady(true);
    watchDeliveries();
  }
  void watchDeliveries() {
    center().setDeliveryHandler(
        [this](Outcome outcome, std::size_t records, const std::string& reason) {
          reports_.push_back({outcome, records, reason});
        });
  }
  void atLeastOnce() { center().setDelivery(QXLogCenter::Delivery::kAtLeastOnce); }
  // A new process over the same files, with the same context and delivery.
  void restartAtLeastOnce() {
    restart();
    format().setPushLogUrl(server_->url("/log"));
    format().setLogEncryptionKey(kTestKey);
    format().setPush_interval_time(Value("60000"));
    watchDeliveries();
    atLeastOnce();
  }
  std::vector<std::string> allSentItems() const {
    std::vector<std::string> all;
    for (std::size_t i = 0; i < server_->requestCount(); ++i) {
      for (const std::string& item : sentItems(i)) all.push_back(item);
    }
    return all;
  }
  std::string outcomes() const {
    std::string text;
    for (const Report& report : reports_) {
      text += "CRD"[static_cast<int>(report.outcome)] + std::to_string(report.records) + " ";
    }
    return text;
  }
  // The records pending in the journal, read back by a reader of its own.
  std::vector<std::string> queuedOnDisk() {
    center::Journal journal(center().env(), nullptr);
    journal.open();
    Array records;
    for (const auto& entry : journal.pending())
      records.push_back(*serial::parseJson(*entry.payload));
    return items(records);
  }

  std::vector<Report> reports_;
};

TEST_F(DeliveryTest, RecordsStoredWhileAnUploadIsOutAreLostDescribedAndKeptAtLeastOnce) {
  format().setLimitLogCount(2);
  recordActionLog("a", "");
  recordActionLog("b", "");  // their upload is out until the test settles
  recordActionLog("c", "");
  settle();
  EXPECT_EQ(allSentItems(), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_EQ(outcomes(), "C2 D1 ");

  atLeastOnce();
  recordActionLog("d", "");
  recordActionLog("e", "");
  // Until it is confirmed the batch stays queued, in memory and on disk.
  EXPECT_EQ(queuedOnDisk(), (std::vector<std::string>{"d", "e"}));
  settle();
  recordActionLog("f", "");
  settle();
  EXPECT_EQ(allSentItems(), (std::vector<std::string>{"a", "b", "d", "e"}));
  EXPECT_EQ(queuedOnDisk(), std::vector<std::string>{"f"});
  EXPECT_EQ(outcomes(), "C2 D1 C2 ");
}

TEST_F(DeliveryTest, TransportFailuresAreRetriedWithGrowingWaitsUntilConfirmed) {
  atLeastOnce();
  server_->script({503, "text/plain", "busy"});
  server_->script({200, "text/plain", "not json"});
  server_->script({200, "application/json", "{"});
  recordActionLog("kept", "");
  settle();
  ASSERT_EQ(server_->requestCount(), 1u);
  EXPECT_EQ(queuedOnDisk(), std::vector<std::string>{"kept"});
  recordActionLog("later", "");  // waits behind the batch that is out

  // Each wait is drawn from the upper half of 1 s, 2 s, 4 s.
  std::vector<int64_t> sentAtMillis{0};
  for (int step = 0; step < 8000 && server_->requestCount() < 4; ++step) {
    std::size_t before = server_->requestCount();
    dispatcher_->advance(milliseconds(1));
    if (server_->requestCount() > before) sentAtMillis.push_back(step + 1);
  }
  ASSERT_EQ(sentAtMillis.size(), 4u);
  for (int i = 1; i < 4; ++i) {
    int64_t span = 1000 << (i - 1);
    EXPECT_GE(sentAtMillis[i] - sentAtMillis[i - 1], span / 2) << i;
    EXPECT_LE(sentAtMillis[i] - sentAtMillis[i - 1], span) << i;
  }
  // The confirmation sends what was stored meanwhile at once.
  ASSERT_EQ(server_->requestCount(), 5u);
  // Each retry posts the sealed batch again, byte for byte; what was stored
  // meanwhile goes in the next batch.
  std::vector<ReceivedRequest> sent = server_->requests();
  for (int i = 1; i < 4; ++i) {
    EXPECT_EQ(sent[i].param("log_data"), sent[0].param("log_data")) << i;
    EXPECT_EQ(sent[i].param("token"), sent[0].param("token")) << i;
  }
  EXPECT_EQ(sentItems(3), std::vector<std::string>{"kept"});
  EXPECT_EQ(sentItems(4), std::vector<std::string>{"later"});
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_EQ(outcomes(), "R1 R1 R1 C1 C1 ");
  EXPECT_EQ(reports_[0].reason, "status 503");
  // A batch's console line is written when it is sealed, not on each attempt.
  EXPECT_EQ(console_->countStartingWith("Ostra->LogContent:"), 2u);
}

TEST_F(DeliveryTest, ARefusedBatchIsTriedThreeTimesThenDroppedAlone) {
  atLeastOnce();
  for (int i = 0; i < 3; ++i) server_->script(ScriptedAnswer::json(R"({"operate_code":"500"})"));
  recordActionLog("refused", "");
  dispatcher_->advance(seconds(10));
  EXPECT_EQ(server_->requestCount(), 3u);
  EXPECT_TRUE(center().actionLog().empty());
  EXPECT_EQ(outcomes(), "R1 R1 D1 ");
  EXPECT_EQ(reports_[2].reason, "refused: operate_code 500");
  EXPECT_EQ(console_->countStartingWith("QXLog: dropped a batch of 1 records after 3 refusals"),
            1u);

  recordActionLog("next", "");
  settle();
  EXPECT_EQ(sentItems(3), std::vector<std::string>{"next"});
}

TEST_F(DeliveryTest, ABacklogGoesOutOldestFirstInBatchesOfFiveHundred) {
  format().setLimitLogCount(100000);
  for (int i = 0; i < 1200; ++i) recordActionLog(std::to_string(i).c_str(), "");
  restartAtLeastOnce();  // a long offline period: the backlog is on disk
  recordActionLog("1200", "");
  settle();
  ASSERT_EQ(server_->requestCount(), 3u);
  EXPECT_EQ(records(0).size(), 500u);
  EXPECT_EQ(records(2).size(), 201u);
  std::vector<std::string> sent = allSentItems();
  ASSERT_EQ(sent.size(), 1201u);
  for (std::size_t i = 0; i < sent.size(); ++i) ASSERT_EQ(sent[i], std::to_string(i));
  EXPECT_EQ(outcomes(), "C500 C500 C201 ");
}

TEST_F(DeliveryTest, WhatWasQueuedDuringAnOutageArrivesAfterARestart) {
  atLeastOnce();
  format().setPushLogUrl(refusedUrl("/log"));
  recordActionLog("one", "");
  recordActionLog("two", "");
  settle();
  restartAtLeastOnce();
  recordActionLog("three", "");
  settle();
  EXPECT_EQ(allSentItems(), (std::vector<std::string>{"one", "two", "three"}));
}

TEST_F(DeliveryTest, PlayRecordsWithoutAHeaderDoNotHoldActionsBackAtLeastOnce) {
  atLeastOnce();
  recordPlayActionLog("4", "1", "0", "1", "0", "10", "0");
  recordActionLog("sent", "");
  settle();
  EXPECT_EQ(allSentItems(), std::vector<std::string>{"sent"});
  EXPECT_EQ(center().playActionLog().size(), 1u);  // still waiting for a play
}

TEST_F(DeliveryTest, TheQueueLimitDropsTheOldestAndCountsThem) {
  atLeastOnce();
  QXLogSetQueueLimit(3);
  format().setPushLogUrl(refusedUrl("/log"));
  for (int i = 0; i < 5; ++i) recordActionLog(std::to_string(i).c_str(), "");
  settle();
  EXPECT_EQ(queuedOnDisk(), (std::vector<std::string>{"2", "3", "4"}));
  EXPECT_EQ(outcomes(), "D1 D1 ");
  EXPECT_EQ(reports_[0].reason, "queue limit");
  EXPECT_EQ(console_->countStartingWith("QXLog: queue limit reached"), 2u);
}

// Sums the records of each outcome: "C19 D1 " and the like, retries left out.
std::string settledTotals(const std::vector<Report>& reports) {
  std::size_t confirmed = 0, dropped = 0;
  for (const Report& report : reports) {
    if (report.outcome == Outcome::kConfirmed) confirmed += report.records;
    if (report.outcome == Outcome::kDropped) dropped += report.records;
  }
  return "C" + std::to_string(confirmed) + " D" + std::to_string(dropped) + " ";
}

TEST_F(DeliveryTest, AQueueLimitBelowTwoBatchesIsRaisedSoThatBatchesStillGoOut) {
  atLeastOnce();
  QXLogSetQueueLimit(1);
  format().setLimitLogCount(20);
  for (int round = 0; round < 8; ++round) {
    for (int i = 0; i < 25; ++i) recordActionLog(std::to_string(round * 25 + i).c_str(), "");
    settle();
  }
  EXPECT_EQ(allSentItems().size(), 200u);
  EXPECT_EQ(settledTotals(reports_), "C200 D0 ");
  EXPECT_EQ(console_->countStartingWith("QXLog: queue limit 1 is below what one batch needs, "
                                        "raised to 40"),
            1u);
}

TEST_F(DeliveryTest, ARecordTooLargeForTheServerCostsThatRecordAlone) {
  atLeastOnce();
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
  for (int i = 0; i < 20; ++i) {
    recordActionLog(i == 7 ? poison.c_str() : std::to_string(i).c_str(), "");
  }
  dispatcher_->advance(seconds(30));

  std::vector<std::string> delivered;
  std::vector<ReceivedRequest> sent = server_->requests();
  for (std::size_t i = 0; i < sent.size(); ++i) {
    if (sent[i].param("log_data").size() > kTooLarge) continue;
    for (const std::string& item : sentItems(i)) delivered.push_back(item);
  }
  std::vector<std::string> expected;
  for (int i = 0; i < 20; ++i) {
    if (i != 7) expected.push_back(std::to_string(i));
  }
  EXPECT_EQ(delivered, expected);
  EXPECT_EQ(settledTotals(reports_), "C19 D1 ");
  ASSERT_EQ(reports_.back().outcome, Outcome::kConfirmed);
  const Report& dropped = reports_[reports_.size() - 2];
  EXPECT_EQ(dropped.outcome, Outcome::kDropped);
  EXPECT_EQ(dropped.records, 1u);
  EXPECT_EQ(dropped.reason, "status 413");
  EXPECT_LE(sent.size(), 12u);
  EXPECT_TRUE(queuedOnDisk().empty());
  // One line for scripts/reliability.sh.
  std::printf(
      "poison record: reported 20, delivered %zu, handler confirmed/dropped %s"
      "requests %zu\n",
      delivered.size(), settledTotals(reports_).c_str(), sent.size());
}

TEST_F(DeliveryTest, RetryAfterIsWaitedOn429And503WithinFiveMinutes) {
  struct Case {
    int status;
    const char* retryAfter;
    int64_t earliestMillis, latestMillis;
  } cases[] = {
      {503, "7", 7000, 7000},
      {429, "2", 2000, 2000},
      {503, "99999", 300000, 300000},
      {500, "7", 500, 1000},  // not honoured: the usual backoff
  };
  atLeastOnce();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    std::size_t before = server_->requestCount();
    server_->script({c.status, "text/plain", "later\n", {{"Retry-After", c.retryAfter}}});
    recordActionLog("x", "");
    settle();
    ASSERT_EQ(server_->requestCount(), before + 1);
    int64_t waited = 0;
    while (server_->requestCount() == before + 1 && waited < 400000) {
      dispatcher_->advance(milliseconds(250));
      waited += 250;
    }
    EXPECT_GE(waited, c.earliestMillis);
    EXPECT_LE(waited, c.latestMillis + 250);
  }
  EXPECT_EQ(settledTotals(reports_), "C4 D0 ");
}

TEST_F(DeliveryTest, WithAWrongKeyEveryRecordEndsDroppedWithTheReasonAndRetriesStop) {
  atLeastOnce();
  format().setLimitLogCount(20);
  server_->setFallback({400, "text/plain", "log_data: cannot decrypt\n"});
  for (int i = 0; i < 20; ++i) recordActionLog(std::to_string(i).c_str(), "");
  dispatcher_->advance(seconds(120));
  EXPECT_EQ(settledTotals(reports_), "C0 D20 ");
  for (const Report& report : reports_) EXPECT_EQ(report.reason, "status 400");
  EXPECT_TRUE(queuedOnDisk().empty());
  std::size_t requests = server_->requestCount();
  EXPECT_LE(requests, 40u);

  // Further batches are no longer split: three tries each, then dropped whole.
  for (int i = 0; i < 20; ++i) recordActionLog(std::to_string(i).c_str(), "");
  dispatcher_->advance(seconds(600));
  EXPECT_EQ(server_->requestCount(), requests + 3);
  EXPECT_EQ(settledTotals(reports_), "C0 D40 ");
  EXPECT_EQ(console_->countStartingWith("QXLog: dropped a batch of 20 records after 3 refusals"),
            1u);
}

TEST_F(DeliveryTest, DiagnosesReportedDuringAnOutageArriveAfterTheServerReturns) {
  atLeastOnce();
  auto down = std::make_shared<std::atomic<bool>>(true);
  server_->setResponder([down](const ReceivedRequest&) -> std::optional<ScriptedAnswer> {
    if (!*down) return std::nullopt;
    return ScriptedAnswer{503, "text/plain", "store: unavailable\n"};
  });
  for (int i = 0; i < 5; ++i) {
    recordDiagnosLog(std::to_string(i).c_str(), "cause", "p3", "p4", "p5", "p6", "p7", "p8");
  }
  dispatcher_->advance(seconds(4));
  std::size_t refused = server_->requestCount();
  EXPECT_GE(refused, 2u);
  EXPECT_EQ(settledTotals(reports_), "C0 D0 ");
  // Kept on disk meanwhile.
  std::ifstream file(documentsPath("QXLogDiagnoses.json"));
  std::string kept((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::optional<Value> onDisk = serial::parseJson(kept);
  ASSERT_TRUE(onDisk && onDisk->asArray());
  EXPECT_EQ(onDisk->asArray()->size(), 5u);
  *down = false;
  dispatcher_->advance(seconds(30));

  std::vector<std::string> arrived;
  std::vector<ReceivedRequest> sent = server_->requests();
  for (std::size_t i = refused; i < sent.size(); ++i) {
    if (sent[i].path == "/diagnosis") arrived.push_back(sent[i].param("diagnosis_log"));
  }
  EXPECT_EQ(arrived.size(), 5u);
  EXPECT_EQ(settledTotals(reports_), "C5 D0 ");
  std::printf("diagnoses outage: reported 5, arrived %zu within 30 s of the server's return\n",
              arrived.size());
  EXPECT_FALSE(std::filesystem::exists(documentsPath("QXLogDiagnoses.json")));
}

// The C handler sees the same reports as the C++ one.
std::vector<std::string> g_cReports;
void onBatch(QXLogBatchOutcome outcome, size_t records, const char* reason, void* context) {
  *static_cast<int*>(context) += 1;
  g_cReports.push_back(std::to_string(outcome) + ":" + std::to_string(records) + ":" + reason);
}

TEST_F(DeliveryTest, TheCHandlerIsCalledOnTheMainQueueWithEachOutcome) {
  int calls = 0;
  QXLogSetDeliveryHandler(onBatch, &calls);
  QXLogSetDelivery(QXLogDeliveryAtLeastOnce);
  server_->script({500, "application/json", "{}"});
  recordActionLog("x", "");
  EXPECT_EQ(calls, 0);  // nothing before the main queue runs
  dispatcher_->advance(seconds(2));
  EXPECT_EQ(g_cReports, (std::vector<std::string>{"1:1:status 500", "0:1:"}));
  QXLogSetDeliveryHandler(nullptr, nullptr);
  recordActionLog("y", "");
  settle();
  EXPECT_EQ(calls, 2);
}

TEST_F(DeliveryTest, AQueueFileNestedTooDeepReadsAsEmpty) {
  {
    std::ofstream file(documentsPath(kActionFile));
    file << "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int i = 0; i < 100000; ++i) file << "<array>";
    for (int i = 0; i < 100000; ++i) file << "</array>";
    file << "</plist>";
  }
  restart();
  EXPECT_TRUE(center().actionLog().empty());
}

// The diagnoses of the process that stopped come from the file alone: the old
// center's own retries are pushed past the window by a long "Retry-After".
TEST_F(DeliveryTest, DiagnosesPendingAtARestartArriveFromTheNextProcess) {
  atLeastOnce();
  auto down = std::make_shared<std::atomic<bool>>(true);
  server_->setResponder([down](const ReceivedRequest&) -> std::optional<ScriptedAnswer> {
    if (!*down) return std::nullopt;
    return ScriptedAnswer{503, "text/plain", "away\n", {{"Retry-After", "300"}}};
  });
  for (int i = 0; i < 4; ++i) {
    recordDiagnosLog(std::to_string(i).c_str(), "cause", "p3", "p4", "p5", "p6", "p7", "p8");
  }
  settle();
  std::size_t before = server_->requestCount();
  EXPECT_EQ(before, 1u);  // one out at a time, and it waits its Retry-After

  restartAtLeastOnce();
  logEnvReady(true);
  *down = false;
  format().setLimitLogCount(20);
  recordActionLog("started", "");  // the first report, far from a batch
  dispatcher_->advance(seconds(30));
  std::vector<std::string> arrived;
  std::vector<ReceivedRequest> sent = server_->requests();
  for (std::size_t i = before; i < sent.size(); ++i) {
    if (sent[i].path == "/diagnosis") arrived.push_back(sent[i].param("diagnosis_log"));
  }
  // Each once (the texts are sealed, so they differ).
  EXPECT_EQ(arrived.size(), 4u);
  EXPECT_EQ(std::set<std::string>(arrived.begin(), arrived.end()).size(), 4u);
  EXPECT_EQ(settledTotals(reports_), "C4 D0 ");
  std::printf("diagnoses across a restart: kept 4, arrived %zu within 30 s of the restart\n",
              arrived.size());
  EXPECT_FALSE(std::filesystem::exists(documentsPath("QXLogDiagnoses.json")));
}

// A batch whose upload is out when the queue limit drops it is counted by its
// answer: a "200" confirms it, so that confirmed plus dropped is what was
// reported and dropped is what never arrived.
TEST_F(DeliveryTest, ABatchOutWhenTheQueueLimitDropsItIsCountedByItsAnswer) {
  atLeastOnce();
  QXLogSetQueueLimit(100);
  format().setLimitLogCount(20);
  auto first = std::make_shared<std::atomic<bool>>(true);
  server_->setResponder([first](const ReceivedRequest&) -> std::optional<ScriptedAnswer> {
    // The queue reaches its limit while the first batch is out.
    if (first->exchange(false)) {
      for (int i = 20; i < 130; ++i) recordActionLog(std::to_string(i).c_str(), "");
    }
    return std::nullopt;
  });
  for (int i = 0; i < 20; ++i) recordActionLog(std::to_string(i).c_str(), "");
  dispatcher_->advance(seconds(10));
  ASSERT_FALSE(*first);
  std::size_t arrived = allSentItems().size();
  EXPECT_EQ(allSentItems().front(), "0");
  EXPECT_EQ(settledTotals(reports_),
            "C" + std::to_string(arrived) + " D" + std::to_string(130 - arrived) + " ");
}

TEST_F(DeliveryTest, ARecordOverTheJournalsBoundIsDroppedAtOnceWithItsReason) {
  atLeastOnce();
  recordActionLog("huge", std::string(center::Journal::kMaxFrameBytes, 'x').c_str());
  recordActionLog("after", "");
  settle();
  EXPECT_EQ(allSentItems(), std::vector<std::string>{"after"});
  ASSERT_FALSE(reports_.empty());
  EXPECT_EQ(reports_[0].outcome, Outcome::kDropped);
  EXPECT_EQ(reports_[0].reason, "record too large");
  EXPECT_EQ(console_->countStartingWith("QXLog: a record of "), 1u);
}

TEST_F(DeliveryTest, ADiagnosisOutWhenTheLimitDropsItIsCountedByItsAnswer) {
  atLeastOnce();
  constexpr std::size_t kReported = center::DiagnosisQueue::kMaxKept + 1;
  auto first = std::make_shared<std::atomic<bool>>(true);
  server_->setResponder([first](const ReceivedRequest&) -> std::optional<ScriptedAnswer> {
    // The diagnoses reach their limit while the first is out.
    if (first->exchange(false)) {
      for (std::size_t i = 1; i < kReported; ++i) {
        recordDiagnosLog(std::to_string(i).c_str(), "cause", "p3", "p4", "p5", "p6", "p7", "p8");
      }
    }
    return std::nullopt;
  });
  recordDiagnosLog("0", "cause", "p3", "p4", "p5", "p6", "p7", "p8");
  dispatcher_->advance(seconds(10));
  ASSERT_FALSE(*first);
  EXPECT_EQ(server_->requestCount(), kReported);
  EXPECT_EQ(settledTotals(reports_), "C" + std::to_string(kReported) + " D0 ");
}

}  // namespace
}  // namespace qxlog::testing
