// A host process for the delivery check. It asks the log server for its
// settings, reports COUNT numbered actions ("FIRST", "FIRST+1", ...) as fast
// as it can while serving the main queue between reports, as an application's
// event loop would, and writes each report's number, as 8 bytes, to standard
// output once the report has returned. Then, as a host's exit path does, it
// flushes: what is queued goes out and the main queue is served until the
// answers are in; and it exits.
//
//   qxlog_delivery_host DOCUMENTS_DIR SERVER_URL KEY described|at-least-once FIRST COUNT
#include "tests/reliability/tools/Acknowledge.h"
#include "bench/reliability/ReliabilityHarness.h"

int main(int argc, char** argv) {
  using namespace qxlog::reliability;
  if (argc != 7) return 2;
  QXLogSetDocumentsDirectory(argv[1]);
  configureHost(
      argv[2], argv[3],
      std::string(argv[4]) == "at-least-once" ? QXLogDeliveryAtLeastOnce : QXLogDeliveryDescribed,
      "delivery");
  uint64_t first = std::strtoull(argv[5], nullptr, 10);
  uint64_t count = std::strtoull(argv[6], nullptr, 10);
  for (uint64_t number = first; number < first + count; ++number) {
    recordActionLog(std::to_string(number).c_str(), "1");
    if (!qxlog::testing::acknowledge(number)) return 1;
    QXLogMainQueueDrain();
  }
  QXLogFlush(60000);
  serveMainQueue(milliseconds(100));  // the delivery reports of the last answers
  return 0;
}
