// The player adapters' tests: a generated clip, the log server, and what it received, decoded.
#ifndef QXLOG_TESTS_INTEGRATIONS_ADAPTERFIXTURE_H_
#define QXLOG_TESTS_INTEGRATIONS_ADAPTERFIXTURE_H_

#include <chrono>
#include <functional>

#include "QXLog/recording/Gate.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/integrations/GeneratedMedia.h"
#include "tests/support/HostileServer.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {

using RealClock = std::chrono::steady_clock;
using Operations = std::vector<std::string>;

inline int64_t millisSince(RealClock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(RealClock::now() - start).count();
}

// What the log server received for one play.
struct Delivered {
  Dictionary header;
  Operations operations;  // "p_2" of each action, in order
  Array actions;
  std::vector<Value> diagnoses;  // decoded reports, in order

  // A field of a diagnosis's object; the summary is the last diagnosis.
  std::string text(const char* key, const char* object = "play_summary", int index = -1) const {
    const Value& report = diagnoses.at(index < 0 ? diagnoses.size() - 1 : index);
    return field(*report.asDictionary()->find(object), key);
  }
  int64_t figure(const char* key) const { return std::stoll(text(key)); }
  // Fields of the last diagnosis's object, joined by '|'.
  std::string texts(std::initializer_list<const char*> keys,
                    const char* object = "play_summary") const {
    std::string joined;
    for (const char* key : keys) joined += "|" + text(key, object);
    return joined.substr(1);
  }
  // A field of action `index` as a number.
  int64_t number(std::size_t index, const char* key) const {
    return std::stoll(field(actions.at(index), key));
  }
};

class AdapterTest : public UploadTest {
 protected:
  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

  void SetUp() override {
    realClock_ = true;  // the players' spans are real time
    UploadTest::SetUp();
    format().setLimitLogCount(1000);  // everything waits for deliver()
    recording::setEnvironmentReady(true);
    clip_ = documents_ + "/clip.ogv";
    makeTheoraClip(clip_);
  }
  // A fresh library and clip, for a test's next case.
  void again() {
    TearDown();
    SetUp();
  }
  std::string clipBytes() const { return files_->read(clip_).value_or(""); }

  // Sends the waiting records and reads back the play and the diagnoses.
  Delivered deliver() {
    center().makePlayLog();
    center().submitAllLog();
    settle();
    Delivered delivered;
    const std::vector<ReceivedRequest> requests = server_->requests();
    for (std::size_t i = 0; i < requests.size(); ++i) {
      if (requests[i].path == "/diagnosis") {
        auto report = collector::decodeLogData(requests[i].param("diagnosis_log"), kTestKey);
        if (report) delivered.diagnoses.push_back(*report.value);
        continue;
      }
      if (requests[i].path != "/log") continue;  // a 404 test's media request
      for (const Value& record : records(i)) {
        const Value* actions = record.asDictionary()->find("p");
        if (actions == nullptr) continue;
        delivered.header = *record.asDictionary();
        for (const Value& action : *actions->asArray()) {
          delivered.actions.push_back(action);
          delivered.operations.push_back(field(action, "p_2"));
        }
      }
    }
    return delivered;
  }

  std::string clip_;
};

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_INTEGRATIONS_ADAPTERFIXTURE_H_
