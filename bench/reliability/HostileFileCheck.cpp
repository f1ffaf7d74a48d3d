// Start-up against whatever lies at the action queue's path, and at least
// once at the first journal segment's path: for each case a fresh host
// process plants it, starts a log server on 127.0.0.1, reports one action and
// serves its main queue until the server has the upload. Prints one row per
// case: the time from the report to the upload's arrival, the process's peak
// resident memory (server and HTTP client included) and whether the upload
// arrived. Exits 1 when any case failed to deliver.
//
//   qxlog_hostile_file_check
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "QXLog/QXLog.h"
#include "QXLog/support/QueueFiles.h"
#include "collector/http/HttpServer.h"
#include "bench/reliability/ReliabilityHarness.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const char* const kCases[] = {"regular file (baseline)",  "FIFO",
                              "device (/dev/null)",       "dangling symlink",
                              "symlink to /dev/zero",     "1 GB sparse file",
                              "64 MiB of garbage (bound)"};

void plant(int which, const std::string& path) {
  switch (which) {
    case 1:
      ::mkfifo(path.c_str(), 0644);
      break;
    case 2:
      fs::create_symlink("/dev/null", path);
      break;
    case 3:
      fs::create_symlink(path + ".nowhere", path);
      break;
    case 4:
      fs::create_symlink("/dev/zero", path);
      break;
    case 5:
      std::ofstream(path) << "<plist";
      fs::resize_file(path, uintmax_t{1} << 30);
      break;
    case 6: {
      // The largest file that is read, all of it, before it parses as damaged.
      std::ofstream out(path, std::ios::binary);
      std::string chunk(1 << 20, 'x');
      for (std::size_t i = 0; i < qxlog::support::kMaxQueueFileBytes >> 20; ++i) out << chunk;
      break;
    }
    default:
      break;  // none: the library creates it
  }
}

// The journal cases: those a journal segment can meet.
const int kJournalCases[] = {0, 1, 2, 3, 5};

// The host: exits 0 once the upload has arrived, 1 after 10 s without it;
// writes the milliseconds it took to `out`.
int host(int which, bool journal, int out) {
  char pattern[] = "/tmp/qxlog-hostile-file-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  const std::string dir = pattern;
  plant(which, dir + (journal ? "/QXLogJournal.0000000001" : "/UserStatisticalLog.plist"));
  if (journal) QXLogSetDelivery(QXLogDeliveryAtLeastOnce);
  std::atomic<int> uploads{0};
  qxlog::collector::HttpServer server({}, [&](const qxlog::collector::HttpServerRequest& r) {
    if (r.path == "/log") ++uploads;
    return qxlog::collector::HttpServerAnswer{200, "application/json", R"({"operate_code":"200"})"};
  });
  if (!server.start()) return 1;
  const std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/log";
  QXLogSetDocumentsDirectory(dir.c_str());
  QXLogSetConsoleHandler([](const char*, void*) {}, nullptr);
  QXLogFormatSetString("pushLogUrl", url.c_str());
  QXLogFormatSetString("logEncryptionKey", "0123456789abcdef");
  QXLogFormatSetString("uid", "42");
  logEnvReady(true);
  const Clock::time_point start = Clock::now();
  recordActionLog("1", "1");
  while (uploads.load() == 0 && Clock::now() - start < std::chrono::seconds(10)) {
    QXLogMainQueueDrain();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  const std::string text = std::to_string(took.count());
  if (::write(out, text.data(), text.size()) < 0) return 1;
  fs::remove_all(dir);
  return uploads.load() > 0 ? 0 : 1;
}

// Runs one case in a host process of its own and prints its row; false when
// the upload did not arrive. A host that hangs is killed, and counted as failed.
bool runCase(int which, bool journal) {
  int out = -1;
  pid_t pid =
      qxlog::reliability::forkChild(30, &out, [&](int fd) { return host(which, journal, fd); });
  const std::string took = qxlog::reliability::readAll(out);
  int status = 0;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  const bool delivered = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  std::printf("%-26s %9s %12.1f %s\n", kCases[which], took.empty() ? "-" : took.c_str(),
              static_cast<double>(usage.ru_maxrss) / 1024.0, delivered ? "yes" : "NO");
  return delivered;
}

}  // namespace

int main() {
  std::printf("%-26s %9s %12s %s\n", "at the queue file's path", "time ms", "peak MB", "delivered");
  int failed = 0;
  for (int which = 0; which < static_cast<int>(std::size(kCases)); ++which) {
    failed += !runCase(which, false);
  }
  std::printf("%-26s %9s %12s %s\n", "at a journal segment's path", "time ms", "peak MB",
              "delivered");
  for (int which : kJournalCases) failed += !runCase(which, true);
  return failed == 0 ? 0 : 1;
}
