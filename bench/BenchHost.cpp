// A host that reports many action records on one thread against a loopback
// log server answering {"operate_code":"200"}, serving the main queue from its
// own loop. Prints one JSON line: reports per second (until the last upload is
// answered), uploads seen by the server, and peak resident memory.
//
//   qxlog_bench_host <records> <batch size> [push interval in ms, default 60000]
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
#include "QXLog/platform/BuiltInQueues.h"
#include "QXLog/platform/MainQueue.h"
#include "bench/BenchSupport.h"
#include "collector/http/HttpServer.h"

namespace qb = qxlog::bench;
using Clock = std::chrono::steady_clock;

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: %s <records> <batch size> [push interval ms]\n", argv[0]);
    return 2;
  }
  const long records = std::atol(argv[1]);
  const long batch = std::atol(argv[2]);
  const long intervalMillis = argc == 4 ? std::atol(argv[3]) : 60000;
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
  // A push interval as the settings endpoint would give it (60 s): with none
  // the push timer submits after every answer and batches stop being batches.
  // Every confirmed upload starts its own timer, which lives for the square of
  // the interval; the leak check passes 0 so that they are all gone at exit.
  center.format().setPush_interval_time(qxlog::Value(int64_t{intervalMillis}));

  const std::string action = qb::actionName(3);
  const std::string movie = qb::movieIndex(3);
  const Clock::time_point start = Clock::now();
  for (long i = 0; i < records; ++i) {
    recordActionLog(action.c_str(), movie.c_str());
    QXLogMainQueueDrain();
  }
  // Serve the main queue until the uploads settle: no new request for 300 ms
  // and no answer left to handle. (An answer clears the action queue, so
  // records stored while their batch was in flight are dropped with it and
  // the number of uploads is at most records / batch size.)
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
  long seen = -1;
  Clock::time_point quietSince = Clock::now();
  while (Clock::now() < deadline) {
    QXLogMainQueueDrain();
    const long now = uploads.load();
    if (now != seen) {
      seen = now;
      quietSince = Clock::now();
    } else if (Clock::now() - quietSince > std::chrono::milliseconds(300) &&
               qxlog::platform::builtInMainQueue()->pending() == 0) {
      break;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  const double settle = std::chrono::duration<double>(Clock::now() - quietSince).count();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count() - settle;
  server.stop();

  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf(
      "{\"records\":%ld,\"batch\":%ld,\"uploads\":%ld,\"most_uploads\":%ld,"
      "\"seconds\":%.3f,\"reports_per_second\":%.1f,\"peak_rss_kb\":%ld}\n",
      records, batch, uploads.load(), records / batch, seconds,
      static_cast<double>(records) / seconds, usage.ru_maxrss);
  return uploads.load() > 0 ? 0 : 1;
}
