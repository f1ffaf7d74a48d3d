// A host process for the queue-file torture test. It reports records as fast
// as it can, with a batch size nothing reaches (so nothing is uploaded), and
// after each report returns writes the report's number, as 8 bytes, to
// standard output. The parent kills it at a random moment and checks the
// files against the numbers it received.
//
//   qxlog_torture_host DOCUMENTS_DIR FIRST_NUMBER [at-least-once]
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "tests/reliability/tools/Acknowledge.h"

namespace {

using qxlog::testing::acknowledge;
using qxlog::testing::ignoreConsole;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) return 2;
  QXLogSetDocumentsDirectory(argv[1]);
  if (argc == 4 && std::string(argv[3]) == "at-least-once") {
    QXLogSetDelivery(QXLogDeliveryAtLeastOnce);
  }
  QXLogSetConsoleHandler(ignoreConsole, nullptr);
  QXLogCenter::center().format().setLimitLogCount(INT64_MAX);
  logEnvReady(true);
  // A play header, so that play-state records wait in the play queue file.
  recordMoviePlayLog("movie", "play", "torture", false, "0");
  for (uint64_t number = std::strtoull(argv[2], nullptr, 10);; ++number) {
    std::string text = std::to_string(number);
    if (number % 8 == 0) {
      // The other two files: the start-time table (a few keys, rewritten) and
      // the play queue.
      QXLogCenterSaveActionStartTime(("item" + std::to_string(number % 5)).c_str());
      recordPlayActionLog("seek", "2", text.c_str(), text.c_str(), "0", "10", "10");
    }
    recordActionLog(text.c_str(), "1");
    if (!acknowledge(number)) return 1;
  }
}
