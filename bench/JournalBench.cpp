// The at-least-once delivery's costs on the reporting thread, with the
// journal holding a backlog, and the bytes it writes. Prints one JSON line per
// figure; scripts/bench.sh turns them into a table.
//
// For each backlog L (1, 1 000, 10 000, 50 000; the log server unreachable, so
// nothing leaves the journal) it alternates, sample by sample:
//   report  a ready recordActionLog at least once
//   floor   the same record built by the library's builder, serialised and
//           framed, and written with one write(2) to an open file
//   sqlite  an insert of the record's JSON into an SQLite table (WAL,
//           synchronous=NORMAL)
// and then, reports alone, the bytes written per report from /proc/self/io
// (all threads; write_bytes and wchar) beside the record's framed size.
// Last, reports at batch size 20 against a loopback log server answering
// "200": their median and 99th percentile, batches being cut and sealed on
// the global queue meanwhile.
//
//   qxlog_bench_journal [SAMPLES]     (default 3000 per figure)
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/center/Journal.h"
#include "QXLog/serial/Json.h"
#include "QXLog/support/Time.h"
#include "bench/BenchSupport.h"
#include "collector/http/HttpServer.h"

namespace qb = qxlog::bench;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

int64_t nowNanos() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

double percentileMicros(std::vector<int64_t> samples, double share) {
  if (samples.empty()) return 0;
  auto at = samples.begin() +
            static_cast<std::ptrdiff_t>(static_cast<double>(samples.size() - 1) * share);
  std::nth_element(samples.begin(), at, samples.end());
  return static_cast<double>(*at) / 1000.0;
}

// A field of /proc/self/io ("write_bytes", "wchar").
long long ioField(const std::string& name) {
  std::ifstream in("/proc/self/io");
  std::string key;
  long long value = 0;
  while (in >> key >> value) {
    if (key == name + ":") return value;
  }
  return -1;
}

class Sqlite {
 public:
  explicit Sqlite(const std::string& path) {
    ::unlink(path.c_str());
    sqlite3_open(path.c_str(), &db_);
    sqlite3_exec(db_,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                 "CREATE TABLE records (id INTEGER PRIMARY KEY, body TEXT NOT NULL);",
                 nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(db_, "INSERT INTO records (body) VALUES (?)", -1, &insert_, nullptr);
  }
  ~Sqlite() {
    sqlite3_finalize(insert_);
    sqlite3_close(db_);
  }
  void insert(const std::string& body) {
    sqlite3_bind_text(insert_, 1, body.data(), static_cast<int>(body.size()), SQLITE_STATIC);
    sqlite3_step(insert_);
    sqlite3_reset(insert_);
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
};

void clearJournal(const std::string& directory) {
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    if (entry.path().filename().string().rfind("QXLogJournal.", 0) == 0) fs::remove(entry.path());
  }
}

QXLogCenter& atLeastOnceCenter(const std::string& directory, int64_t batch,
                               const std::string& url) {
  clearJournal(directory);
  QXLogCenter& center = qb::freshCenter(batch);
  center.setDelivery(QXLogCenter::Delivery::kAtLeastOnce);
  center.format().setPushLogUrl(url);
  center.format().setPush_interval_time(qxlog::Value(int64_t{60000}));
  return center;
}

}  // namespace

int main(int argc, char** argv) {
  const int samples = argc > 1 ? std::atoi(argv[1]) : 3000;
  const std::string directory = qb::benchDirectory() + "/journal";
  fs::create_directories(directory);
  qb::setUpHost(directory);
  const std::string action = qb::actionName(7);
  const std::string movie = qb::movieIndex(7);
  const std::string unreachable = "http://127.0.0.1:9/log";

  for (long backlog : {1L, 1000L, 10000L, 50000L}) {
    QXLogCenter& center = atLeastOnceCenter(directory, INT64_MAX, unreachable);
    for (long i = 1; i < backlog; ++i) recordActionLog(action.c_str(), movie.c_str());
    Sqlite database(directory + "/sqlite.db");
    const std::string floorPath = directory + "/floor.journal";
    int floor =
        ::open(floorPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    std::vector<int64_t> report, floorTimes, sqlite;
    std::size_t framed = 0;
    for (int i = 0; i < samples; ++i) {
      int64_t a = nowNanos();
      recordActionLog(action.c_str(), movie.c_str());
      int64_t b = nowNanos();
      QXLogMessageFormat& format = center.format();
      qxlog::Dictionary record =
          format.actionLog(action, qxlog::support::currentMillisText(format.env().clock()), movie);
      std::string json;
      qxlog::serial::appendJson(json, qxlog::Value(std::move(record)));
      std::string frame = qxlog::center::journalFrame(json);
      if (::write(floor, frame.data(), frame.size()) != static_cast<ssize_t>(frame.size())) {
        return 1;
      }
      int64_t c = nowNanos();
      database.insert(json);
      int64_t d = nowNanos();
      report.push_back(b - a);
      floorTimes.push_back(c - b);
      sqlite.push_back(d - c);
      framed = frame.size();
    }
    ::close(floor);
    // Reports alone, for the bytes they write; the grouped flush runs
    // meanwhile on the global queue.
    const int alone = std::min(samples, 2000);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    long long writeBytes = ioField("write_bytes"), wchar = ioField("wchar");
    for (int i = 0; i < alone; ++i) recordActionLog(action.c_str(), movie.c_str());
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    writeBytes = ioField("write_bytes") - writeBytes;
    wchar = ioField("wchar") - wchar;
    std::printf(
        "{\"figure\":\"at_least_once_report\",\"backlog\":%ld,\"pending\":%zu,"
        "\"report_median_us\":%.2f,\"report_p90_us\":%.2f,\"report_p99_us\":%.2f,"
        "\"floor_median_us\":%.2f,"
        "\"sqlite_median_us\":%.2f,\"framed_bytes\":%zu,\"write_bytes_per_report\":%.1f,"
        "\"wchar_per_report\":%.1f}\n",
        backlog, center.actionLog().size(), percentileMicros(report, 0.5),
        percentileMicros(report, 0.9), percentileMicros(report, 0.99),
        percentileMicros(floorTimes, 0.5), percentileMicros(sqlite, 0.5), framed,
        static_cast<double>(writeBytes) / alone, static_cast<double>(wchar) / alone);
    std::fflush(stdout);
  }

  // Batch size 20 against a log server that confirms every upload.
  qxlog::collector::HttpServer server({}, [](const qxlog::collector::HttpServerRequest&) {
    return qxlog::collector::HttpServerAnswer{200, "application/json",
                                              "{\"operate_code\":\"200\"}"};
  });
  if (!server.start()) return 1;
  QXLogCenter& center = atLeastOnceCenter(
      directory, 20, "http://127.0.0.1:" + std::to_string(server.port()) + "/log");
  std::vector<int64_t> report;
  for (int i = 0; i < samples * 4; ++i) {
    int64_t a = nowNanos();
    recordActionLog(action.c_str(), movie.c_str());
    report.push_back(nowNanos() - a);
    QXLogMainQueueDrain();
  }
  int left = QXLogFlush(10000);
  server.stop();
  std::printf(
      "{\"figure\":\"at_least_once_batch_20\",\"reports\":%zu,\"report_median_us\":%.2f,"
      "\"report_p90_us\":%.2f,\"report_p99_us\":%.2f,\"unconfirmed_after_flush\":%d}\n",
      report.size(), percentileMicros(report, 0.5), percentileMicros(report, 0.9),
      percentileMicros(report, 0.99), left);
  (void)center;
  return 0;
}
