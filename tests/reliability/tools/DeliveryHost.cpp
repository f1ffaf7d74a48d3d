// A host process for the delivery check. It asks the log server for its
// settings, reports COUNT numbered actions ("FIRST", "FIRST+1", ...) as fast
// as it can while serving the main queue between reports, as an application's
// event loop would, and writes each report's number, as 8 bytes, to standard
// output once the report has returned. Then, as a host's exit path does, it
// flushes: what is queued goes out and the main queue is served until the
// answers are in; and it exits.
//
//   qxlog_delivery_host DOCUMENTS_DIR SERVER_URL KEY described|at-least-once FIRST COUNT
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "tests/reliability/tools/Acknowledge.h"

namespace {

using qxlog::testing::acknowledge;
using qxlog::testing::ignoreConsole;

using Clock = std::chrono::steady_clock;

// Serves the main queue for `span`, or until `done` holds.
template <typename Done>
void serveMainQueue(std::chrono::milliseconds span, Done done) {
  for (auto end = Clock::now() + span; Clock::now() < end && !done();) {
    QXLogMainQueueDrain();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

void configure(const std::string& server, const char* key, bool atLeastOnce) {
  QXLogSetDelivery(atLeastOnce ? QXLogDeliveryAtLeastOnce : QXLogDeliveryDescribed);
  QXLogFormatSetString("uid", "delivery");
  QXLogFormatSetString("idfa", "delivery-host");
  QXLogFormatSetString("logEncryptionKey", key);
  QXLogFormatSetString("pushUrl", (server + "/settings").c_str());
  QXLogFormatSetString("pushLogUrl", (server + "/log").c_str());
  QXLogFormatSetString("pushDiagnosisUrl", (server + "/diagnosis").c_str());
  QXLogCenterGetLogServerInfo();
  // Reports wait for the batch size; a collector that is down answers later.
  QXLogMessageFormat& format = QXLogCenter::center().format();
  serveMainQueue(std::chrono::seconds(5), [&] { return format.limitLogCount() > 1; });
  logEnvReady(true);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) return 2;
  QXLogSetDocumentsDirectory(argv[1]);
  QXLogSetConsoleHandler(ignoreConsole, nullptr);
  configure(argv[2], argv[3], std::string(argv[4]) == "at-least-once");
  uint64_t first = std::strtoull(argv[5], nullptr, 10);
  uint64_t count = std::strtoull(argv[6], nullptr, 10);
  for (uint64_t number = first; number < first + count; ++number) {
    recordActionLog(std::to_string(number).c_str(), "1");
    if (!acknowledge(number)) return 1;
    QXLogMainQueueDrain();
  }
  QXLogFlush(60000);
  // The delivery reports of the last answers.
  serveMainQueue(std::chrono::milliseconds(100), [] { return false; });
  return 0;
}
