// Each host-thread cost beside the limit it is compared with, on the same
// data and in the same run:
//   StoreVsFloor/L   a ready report that does not upload, queue holding L,
//                    alternating with (a) its floor: writing the bytes of
//                    that queue file to a new file and exchanging it with the
//                    old one, (b) the older write-and-rename over the old
//                    file, (c) an SQLite insert of one record (WAL,
//                    synchronous=NORMAL), what a database-backed library pays
//   EnvelopeVsGzip/N the upload envelope of N typical records as the center
//                    builds it from its action queue, alternating with its
//                    limit: zlib compressing the envelope's JSON body
//   Json/N           the JSON step alone, for the breakdown
//   ReportWithUpload a ready report at batch size 1, up to the hand-over of
//                    the POST to the global queue (network excluded), beside
//                    a store at L = 1 and an envelope of one record
//   ColdStart        the first queue access after a restart, 500 records
//   LibplistParse    reading and parsing the same file with libplist alone
//   PlayEventVsAction a play event through the play API (a pause or a resume
//                    of a play in progress) alternating with its limit: a
//                    recordPlayActionLog of the same action under a play
//                    header, at batch size 1, up to the hand-over of the
//                    upload (network excluded)
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <plist/plist.h>
#include <sqlite3.h>
#include <stdio.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>
#include <sstream>
#include <vector>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogPlay.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/platform/BuiltInQueues.h"
#include "QXLog/platform/Env.h"
#include "QXLog/platform/PosixFileSystem.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/PropertyList.h"
#include "QXLog/support/Time.h"
#include "bench/BenchSupport.h"

namespace qb = qxlog::bench;
namespace platform = qxlog::platform;
namespace serial = qxlog::serial;

namespace {

const std::string& directory() {
  static const std::string path = [] {
    std::string dir = qb::benchDirectory();
    qb::setUpHost(dir);
    return dir;
  }();
  return path;
}

// Holds the tasks handed to the global queue instead of running them: the
// report's cost ends where the request is handed over.
class HoldingQueue final : public platform::Executor {
 public:
  void post(platform::Task task, std::chrono::nanoseconds /*delay*/) override {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  std::size_t discard() {
    std::vector<platform::Task> tasks;
    {
      std::lock_guard lock(mutex_);
      tasks.swap(tasks_);
    }
    return tasks.size();
  }

 private:
  std::mutex mutex_;
  std::vector<platform::Task> tasks_;
};

std::string readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// Nanoseconds on the steady clock and on this thread's CPU clock (a system
// call). A start reads the CPU clock first and an end reads it last, so that
// the wall-clock interval between them holds no system call of its own.
struct Stamp {
  int64_t wall;
  int64_t cpu;
  static int64_t wallNow() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  static int64_t cpuNow() {
    timespec cpuTime{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpuTime);
    return int64_t{cpuTime.tv_sec} * 1000000000 + cpuTime.tv_nsec;
  }
  static Stamp start() {
    const int64_t cpu = cpuNow();
    return {wallNow(), cpu};
  }
  static Stamp stop() {
    const int64_t wall = wallNow();
    return {wall, cpuNow()};
  }
};

double percentileMicros(std::vector<int64_t>& samples, double share) {
  if (samples.empty()) return 0;
  auto at = samples.begin() +
            static_cast<std::ptrdiff_t>(static_cast<double>(samples.size() - 1) * share);
  std::nth_element(samples.begin(), at, samples.end());
  return static_cast<double>(*at) / 1000.0;
}

double medianMicros(std::vector<int64_t>& samples) {
  return percentileMicros(samples, 0.5);
}

// Writes `bytes` to a new file beside `path`; its name, or "" on failure.
std::string writeNewFile(const std::string& path, const std::string& bytes) {
  std::string name = path + ".tmp-XXXXXX";
  int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return "";
  bool ok = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  ok = ::close(fd) == 0 && ok;
  return ok ? name : "";
}

// The older way: a new file renamed over `path`.
bool rewriteAtomically(const std::string& path, const std::string& bytes) {
  std::string name = writeNewFile(path, bytes);
  return !name.empty() && ::rename(name.c_str(), path.c_str()) == 0;
}

// The floor: a new file exchanged with `path`, then the old contents unlinked.
bool exchangeAtomically(const std::string& path, const std::string& bytes) {
  std::string name = writeNewFile(path, bytes);
  if (name.empty()) return false;
  if (::renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) != 0) {
    return ::rename(name.c_str(), path.c_str()) == 0;
  }
  return ::unlink(name.c_str()) == 0;
}

// A table of records in an SQLite database in WAL mode, as a database-backed
// telemetry library keeps its queue.
class SqliteQueue {
 public:
  explicit SqliteQueue(const std::string& path) {
    ::unlink(path.c_str());
    sqlite3_open(path.c_str(), &db_);
    sqlite3_exec(db_,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                 "CREATE TABLE records (id INTEGER PRIMARY KEY, body TEXT NOT NULL);",
                 nullptr, nullptr, nullptr);
    sqlite3_prepare_v2(db_, "INSERT INTO records (body) VALUES (?)", -1, &insert_, nullptr);
  }
  ~SqliteQueue() {
    sqlite3_finalize(insert_);
    sqlite3_close(db_);
  }
  bool insert(const std::string& body) {
    sqlite3_bind_text(insert_, 1, body.data(), static_cast<int>(body.size()), SQLITE_STATIC);
    bool done = sqlite3_step(insert_) == SQLITE_DONE;
    sqlite3_reset(insert_);
    return done;
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
};

// Samples of one variant, wall clock and thread CPU.
struct Samples {
  std::vector<int64_t> wall, cpu;
  void add(const Stamp& a, const Stamp& b) {
    wall.push_back(b.wall - a.wall);
    cpu.push_back(b.cpu - a.cpu);
  }
  void report(benchmark::State& state, const std::string& name) {
    state.counters[name + "_us"] = medianMicros(wall);
    state.counters[name + "_p90_us"] = percentileMicros(wall, 0.9);
    state.counters[name + "_cpu_us"] = medianMicros(cpu);
  }
};

template <typename Step>
bool timed(Samples& samples, Step step) {
  const Stamp a = Stamp::start();
  bool ok = step();
  samples.add(a, Stamp::stop());
  return ok;
}

// Figure 1. Each iteration stores one report with the action queue holding L
// records, then replaces a file of the same bytes by exchange (the floor), by
// rename (the older way), and inserts one record into SQLite; the four
// alternate so that all meet the same load and the same write-back, and each
// one's median and 90th percentile are taken over its own samples. The queue
// reaches L records by a store, untimed, as it would in a running host (a
// restart's first store is the cold-start figure). The wall-clock figures are
// the host thread's cost; the thread-CPU medians show the work apart from
// waiting on the file system.
void StoreVsFloor(benchmark::State& state) {
  const std::string floorPath = directory() + "/exchange-floor.plist";
  const std::string renamePath = directory() + "/rename-limit.plist";
  SqliteQueue database(directory() + "/sqlite-queue.db");
  const auto held = static_cast<std::size_t>(state.range(0));
  QXLogCenter& center = qb::freshCenter(INT64_MAX);
  const qxlog::Array queue = qb::typicalRecords(held - 1);
  const std::string action = qb::actionName(7);
  const std::string movie = qb::movieIndex(7);
  const std::string queuePath = center.env().documentsPath(qxlog::center::kActionQueueFile);
  center.setActionLog(queue);
  recordActionLog(action.c_str(), movie.c_str());
  recordActionLog(action.c_str(), movie.c_str());
  const std::string bytes = readWholeFile(queuePath);
  std::string record;
  serial::appendJson(record, qb::typicalRecords(1)[0]);
  rewriteAtomically(floorPath, bytes);
  rewriteAtomically(renamePath, bytes);

  Samples store, exchanged, renamed, inserted;
  for (auto _ : state) {
    state.PauseTiming();
    center.setActionLog(queue);
    recordActionLog(action.c_str(), movie.c_str());
    state.ResumeTiming();
    timed(store, [&] {
      recordActionLog(action.c_str(), movie.c_str());
      return true;
    });
    bool ok = timed(exchanged, [&] { return exchangeAtomically(floorPath, bytes); });
    ok = timed(renamed, [&] { return rewriteAtomically(renamePath, bytes); }) && ok;
    ok = timed(inserted, [&] { return database.insert(record); }) && ok;
    if (!ok) {
      state.SkipWithError("a limit's write failed");
      break;
    }
  }
  if (center.actionLog().size() != held + 1) state.SkipWithError("the report did not store");
  store.report(state, "store");
  exchanged.report(state, "floor");
  renamed.report(state, "rename");
  inserted.report(state, "sqlite");
  state.counters["file_bytes"] = static_cast<double>(bytes.size());
}

// The envelope's JSON step alone, for the breakdown of its excess over gzip.
void Json(benchmark::State& state) {
  directory();
  const qxlog::Array records = qb::typicalRecords(static_cast<std::size_t>(state.range(0)));
  const qxlog::Value root(records);
  std::string out;
  for (auto _ : state) {
    out.clear();
    serial::appendJson(out, root);
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["json_bytes"] = static_cast<double>(out.size());
}

// Deflates `body` as the wire format does (default level, gzip wrapper,
// 15-bit window) into `out`; false if zlib did not finish.
bool gzip(const std::string& body, std::vector<unsigned char>& out) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    return false;
  }
  out.resize(deflateBound(&stream, body.size()));
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
  stream.avail_in = static_cast<uInt>(body.size());
  stream.next_out = out.data();
  stream.avail_out = static_cast<uInt>(out.size());
  const bool finished = deflate(&stream, Z_FINISH) == Z_STREAM_END;
  deflateEnd(&stream);
  return finished;
}

// Figure 2. Each iteration builds the envelope of N typical records, then
// gzips the envelope's JSON body alone with zlib (the limit); medians of each
// one's own samples, as for the store. The envelope is the center's, of its
// action queue, which reaches N records by a store as in a running host.
void EnvelopeVsGzip(benchmark::State& state) {
  directory();
  const auto count = static_cast<std::size_t>(state.range(0));
  QXLogCenter& center = qb::freshCenter(INT64_MAX);
  center.setActionLog(qb::typicalRecords(count - 1));
  recordActionLog(qb::actionName(count).c_str(), qb::movieIndex(count).c_str());
  if (center.actionLog().size() != count) state.SkipWithError("the report did not store");
  const std::string body = *center.combinationStatisticalLog().find("log_data_str")->asString();
  std::vector<unsigned char> out;
  std::vector<int64_t> envelopeWall, envelopeCpu, gzipWall, gzipCpu;
  for (auto _ : state) {
    const Stamp a = Stamp::start();
    qxlog::Dictionary envelope = center.combinationStatisticalLog();
    const Stamp b = Stamp::stop();
    const Stamp b2 = Stamp::start();
    const bool compressed = gzip(body, out);
    const Stamp c = Stamp::stop();
    benchmark::DoNotOptimize(envelope);
    benchmark::DoNotOptimize(out.data());
    if (!compressed) {
      state.SkipWithError("deflate did not finish");
      break;
    }
    envelopeWall.push_back(b.wall - a.wall);
    envelopeCpu.push_back(b.cpu - a.cpu);
    gzipWall.push_back(c.wall - b2.wall);
    gzipCpu.push_back(c.cpu - b2.cpu);
  }
  state.counters["envelope_us"] = medianMicros(envelopeWall);
  state.counters["gzip_us"] = medianMicros(gzipWall);
  state.counters["envelope_cpu_us"] = medianMicros(envelopeCpu);
  state.counters["gzip_cpu_us"] = medianMicros(gzipCpu);
  state.counters["json_bytes"] = static_cast<double>(body.size());
  center.setActionLog(qxlog::Array());
}

// Figure 3. Each iteration times, in turn: a store with the queue holding
// one record (no upload), a ready report at batch size 1 from an empty queue
// (store, envelope, clearing, and the POST handed to the global queue, which
// here holds it instead of sending it), and the envelope of one record.
void ReportWithUpload(benchmark::State& state) {
  directory();
  auto holding = std::make_shared<HoldingQueue>();
  // Flushes to the disk still run on the real global queue.
  QXLogCenter& center = qb::freshCenter(
      INT64_MAX, std::make_shared<platform::Env>(platform::Env::Parts{
                     .globalQueue = holding,
                     .files = std::make_shared<platform::PosixFileSystem>(
                         platform::PosixFileSystem::Options{platform::builtInGlobalQueue()}),
                     .console = [](const std::string&) {},
                     .documents = directory()}));
  const std::string action = qb::actionName(7);
  const std::string movie = qb::movieIndex(7);
  const qxlog::Array one = qb::typicalRecords(1);
  std::size_t handed = 0;
  bool cleared = true;
  std::vector<int64_t> storeWall, reportWall, envelopeWall, storeCpu, reportCpu, envelopeCpu;
  for (auto _ : state) {
    state.PauseTiming();
    center.format().setLimitLogCount(INT64_MAX);
    center.setActionLog(qxlog::Array());
    recordActionLog(action.c_str(), movie.c_str());
    state.ResumeTiming();
    const Stamp a = Stamp::start();
    recordActionLog(action.c_str(), movie.c_str());
    const Stamp b = Stamp::stop();
    state.PauseTiming();
    center.setActionLog(qxlog::Array());
    center.format().setLimitLogCount(1);
    state.ResumeTiming();
    const Stamp c = Stamp::start();
    recordActionLog(action.c_str(), movie.c_str());
    const Stamp d = Stamp::stop();
    const Stamp d2 = Stamp::start();
    qxlog::Dictionary envelope = center.format().combinationLog(&one);
    const Stamp e = Stamp::stop();
    benchmark::DoNotOptimize(envelope);
    state.PauseTiming();
    handed += holding->discard();
    cleared = cleared && center.actionLog().empty();
    state.ResumeTiming();
    storeWall.push_back(b.wall - a.wall);
    reportWall.push_back(d.wall - c.wall);
    envelopeWall.push_back(e.wall - d2.wall);
    storeCpu.push_back(b.cpu - a.cpu);
    reportCpu.push_back(d.cpu - c.cpu);
    envelopeCpu.push_back(e.cpu - d2.cpu);
  }
  if (handed != static_cast<std::size_t>(state.iterations()) || !cleared) {
    state.SkipWithError("not every report was handed over as an upload");
  }
  state.counters["report_us"] = medianMicros(reportWall);
  state.counters["store_l1_us"] = medianMicros(storeWall);
  state.counters["envelope_1_us"] = medianMicros(envelopeWall);
  state.counters["report_cpu_us"] = medianMicros(reportCpu);
  state.counters["store_l1_cpu_us"] = medianMicros(storeCpu);
  state.counters["envelope_1_cpu_us"] = medianMicros(envelopeCpu);
}

// The first queue access after a restart: the center reads and converts the
// queue files, here an action queue of 500 records.
constexpr std::size_t kColdRecords = 500;

const std::string& coldFile() {
  static const std::string path = [] {
    directory();
    QXLogCenter& center = qb::freshCenter(INT64_MAX);
    center.setActionLog(qb::typicalRecords(kColdRecords - 1));
    recordActionLog(qb::actionName(1).c_str(), qb::movieIndex(1).c_str());
    return center.env().documentsPath(qxlog::center::kActionQueueFile);
  }();
  return path;
}

void ColdStart(benchmark::State& state) {
  coldFile();
  std::size_t loaded = 0;
  for (auto _ : state) {
    state.PauseTiming();
    // The previous center is kept alive by the registry; empty its queue so
    // that iterations do not pile up memory.
    QXLogCenter::center().setActionLog(qxlog::Array());
    QXLogCenter& center = qb::freshCenter(INT64_MAX);
    state.ResumeTiming();
    // The count check that follows every store: the first access of both queues.
    center.storeLog(qxlog::Dictionary());
    state.PauseTiming();
    loaded = center.actionLog().size();
    state.ResumeTiming();
  }
  if (loaded != kColdRecords) state.SkipWithError("the queue file did not load");
}

void LibplistParse(benchmark::State& state) {
  const std::string& path = coldFile();
  uint32_t size = 0;
  for (auto _ : state) {
    std::string xml = readWholeFile(path);
    plist_t root = nullptr;
    plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
    size = root != nullptr ? plist_array_get_size(root) : 0;
    plist_free(root);
  }
  if (size != kColdRecords) state.SkipWithError("libplist did not read the file");
}

}  // namespace

// Figure 7. The play's event rewrites its own file of pending actions (a part
// of 100 goes to the store); the described action is stored in the play
// queue, folded under the header and submitted at batch size 1.
void PlayEventVsAction(benchmark::State& state) {
  directory();
  auto holding = std::make_shared<HoldingQueue>();
  QXLogCenter& center = qb::freshCenter(
      1, std::make_shared<platform::Env>(platform::Env::Parts{
             .globalQueue = holding,
             .files = std::make_shared<platform::PosixFileSystem>(
                 platform::PosixFileSystem::Options{platform::builtInGlobalQueue()}),
             .console = [](const std::string&) {},
             .documents = directory()}));
  recordMoviePlayLog("movie-7", "http://127.0.0.1/v.m3u8", "home", false, "0");
  const QXLogPlayInfo info{"movie-7", "http://127.0.0.1/v.m3u8", "home", "1", false, "0"};
  QXLogPlay* play = QXLogPlayBegin(&info);
  QXLogPlaySetState(play, QXLogPlayerPlaying, 0);
  Samples event, action;
  int64_t position = 0;
  bool paused = false;
  for (auto _ : state) {
    position += 1000;
    paused = !paused;
    timed(event, [&] {
      QXLogPlaySetState(play, paused ? QXLogPlayerPaused : QXLogPlayerPlaying, position);
      return true;
    });
    const std::string at = std::to_string(1700000000000 + position);
    const std::string where = std::to_string(position);
    timed(action, [&] {
      recordPlayActionLog(paused ? "3" : "4", paused ? "2" : "1", at.c_str(), at.c_str(),
                          where.c_str(), where.c_str(), "0");
      return true;
    });
    state.PauseTiming();
    holding->discard();
    center.setActionLog(qxlog::Array());
    state.ResumeTiming();
  }
  QXLogPlayEnd(play);
  holding->discard();
  event.report(state, "play_event");
  action.report(state, "play_action");
}

BENCHMARK(StoreVsFloor)->Arg(1)->Arg(20)->Arg(100)->Arg(500)->Unit(benchmark::kMicrosecond);
BENCHMARK(EnvelopeVsGzip)->Arg(1)->Arg(20)->Arg(100)->Arg(500)->Unit(benchmark::kMicrosecond);
BENCHMARK(Json)->Arg(1)->Arg(20)->Arg(100)->Arg(500)->Unit(benchmark::kMicrosecond);
BENCHMARK(ReportWithUpload)->Unit(benchmark::kMicrosecond);
BENCHMARK(ColdStart)->Unit(benchmark::kMicrosecond);
BENCHMARK(LibplistParse)->Unit(benchmark::kMicrosecond);
BENCHMARK(PlayEventVsAction)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
