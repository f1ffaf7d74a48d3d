// A host that reports many action records on one thread against a loopback
// log server answering {"operate_code":"200"}, serving the main queue from its
// own loop. Prints one JSON line: reports per second (until every upload is
// answered), uploads seen by the server, and peak resident memory.
//
//   qxlog_bench_host <records> <batch size>
//
// Run under valgrind with a small count for the leak check: heap in use at
// exit must not depend on the number of records.
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Dispatch.h"
#include "QXLog/platform/MainQueue.h"
#include "bench/BenchSupport.h"
#include "collector/http/HttpServer.h"

namespace qb = qxlog::bench;
using Clock = std::chrono::steady_clock;

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <records> <batch size>\n", argv[0]);
    return 2;
  }
  const long records = std::atol(argv[1]);
  const long batch = std::atol(argv[2]);
  if (records <= 0 || batch <= 0) return 2;

  std::atomic<long> uploads{0};
  qxlog::collector::HttpServer server({}, [&](const qxlog::collector::HttpServerRequest&) {
    uploads.fetch_add(1);
    return qxlog::collector::HttpServerAnswer{200, "application/json",
                                              "{\"operate_code\":\"200\"}"};
  });
  if (!server.start()) {
    std::fprintf(stderr, "server: %s\n", server.error().c_str());
    return 1;
  }

  qb::setUpHost(qb::benchDirectory());
  QXLogCenter& center = qb::freshCenter(batch);
  center.setActionLog(qxlog::Array());
  const std::string url = "http://127.0.0.1:" + std::to_string(server.port()) + "/log";
  center.format().setPushLogUrl(url);

  const std::string action = qb::actionName(3);
  const std::string movie = qb::movieIndex(3);
  const Clock::time_point start = Clock::now();
  for (long i = 0; i < records; ++i) {
    recordActionLog(action.c_str(), movie.c_str());
    QXLogMainQueueDrain();
  }
  // Serve the main queue until the server has every batch and the answers ran.
  const long expected = records / batch;
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
  while (uploads.load() < expected && Clock::now() < deadline) {
    QXLogMainQueueDrain();
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  while (qxlog::platform::defaultMainQueue().pending() != 0 && Clock::now() < deadline) {
    QXLogMainQueueDrain();
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  server.stop();

  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf(
      "{\"records\":%ld,\"batch\":%ld,\"uploads\":%ld,\"expected_uploads\":%ld,"
      "\"seconds\":%.3f,\"reports_per_second\":%.1f,\"peak_rss_kb\":%ld}\n",
      records, batch, uploads.load(), expected, seconds, static_cast<double>(records) / seconds,
      usage.ru_maxrss);
  return uploads.load() == expected ? 0 : 1;
}
