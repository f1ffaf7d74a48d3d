#include "tests/support/UploadFixture.h"

#include "QXLog/QXLog.h"
#include "collector/decode/EnvelopeDecoder.h"

namespace qxlog::testing {

Items numbers(int first, int count) {
  Items result;
  for (int i = first; i < first + count; ++i) result.push_back(std::to_string(i));
  return result;
}

void UploadTest::SetUp() {
  LibraryTest::SetUp();
  server_ = std::make_unique<TestServer>();
  pointAtServer();
  format().setUid("42");
  format().setIdfa("device-1");
}

void UploadTest::TearDown() {
  // Requests still scheduled are dropped with the dispatcher.
  LibraryTest::TearDown();
  server_.reset();
}

void UploadTest::pointAtServer() {
  format().setPushLogUrl(server_->url("/log"));
  format().setPushDiagnosisUrl(server_->url("/diagnosis"));
  format().setPushUrl(server_->url("/settings"));
  format().setLogEncryptionKey(kTestKey);
  // A confirmed upload restarts an hour-long countdown; without a settings
  // answer the countdown is 0 and submits again at once.
  format().setPush_interval_time(Value("60000"));
}

void UploadTest::restartAtLeastOnce() {
  restart();
  pointAtServer();
  watchDeliveries();
  atLeastOnce();
}

void UploadTest::watchDeliveries() {
  reports_.clear();
  center().setDeliveryHandler(
      [this](QXLogCenter::BatchOutcome outcome, std::size_t records, const std::string& reason) {
        reports_.push_back({outcome, records, reason});
      });
}

void UploadTest::report(const Items& items) {
  for (const std::string& item : items) recordActionLog(item.c_str(), "");
}

Value UploadTest::body(std::size_t index) const {
  std::vector<ReceivedRequest> received = server_->requests();
  if (index >= received.size()) {
    ADD_FAILURE() << "no request " << index;
    return Value();
  }
  auto decoded = collector::decodeLogData(received[index].param("log_data"), kTestKey);
  if (!decoded) {
    ADD_FAILURE() << "log_data of request " << index << " does not decode: " << decoded.error;
    return Value();
  }
  return std::move(*decoded.value);
}

Array UploadTest::records(std::size_t index) const {
  Value decoded = body(index);
  const Value* a = decoded.isDictionary() ? decoded.asDictionary()->find("a") : nullptr;
  return a != nullptr && a->isArray() ? *a->asArray() : Array();
}

Items UploadTest::allSentItems() const {
  Items all;
  for (std::size_t i = 0; i < server_->requestCount(); ++i) {
    for (std::string& item : sentItems(i)) all.push_back(std::move(item));
  }
  return all;
}

std::string UploadTest::outcomes() const {
  std::string text;
  for (const Report& report : reports_) {
    text += "CRD"[static_cast<int>(report.outcome)] + std::to_string(report.records) + " ";
  }
  return text;
}

std::string UploadTest::totals() const {
  std::size_t confirmed = 0, dropped = 0;
  for (const Report& report : reports_) {
    if (report.outcome == QXLogCenter::BatchOutcome::kConfirmed) confirmed += report.records;
    if (report.outcome == QXLogCenter::BatchOutcome::kDropped) dropped += report.records;
  }
  return "C" + std::to_string(confirmed) + " D" + std::to_string(dropped) + " ";
}

}  // namespace qxlog::testing
