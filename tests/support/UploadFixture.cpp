#include "tests/support/UploadFixture.h"

#include "collector/decode/EnvelopeDecoder.h"

namespace qxlog::testing {

void UploadTest::SetUp() {
  LibraryTest::SetUp();
  server_ = std::make_unique<TestServer>();
  format().setPushLogUrl(server_->url("/log"));
  format().setPushDiagnosisUrl(server_->url("/diagnosis"));
  format().setPushUrl(server_->url("/settings"));
  format().setLogEncryptionKey(kTestKey);
  format().setUid("42");
  format().setIdfa("device-1");
  // As after a settings answer: a confirmed upload restarts an hour-long
  // countdown. Without one the countdown is 0 and submits again at once.
  format().setPush_interval_time(Value("60000"));
}

void UploadTest::TearDown() {
  // Requests still scheduled are dropped with the dispatcher.
  LibraryTest::TearDown();
  server_.reset();
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

std::vector<std::string> UploadTest::sentItems(std::size_t index) const {
  return items(records(index));
}

}  // namespace qxlog::testing
