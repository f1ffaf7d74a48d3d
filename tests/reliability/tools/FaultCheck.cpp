// Faults that must not stop delivery, at least once, against a real
// qxlog-collector on 127.0.0.1 (batch size 20). Each host is a forked process
// of its own with a fresh Documents directory.
//
//  - poison record: a 17 MB action, then 250 numbered actions; the host
//    flushes for up to 30 s. Prints how many of the 250 the collector stored,
//    when the flush ended and why the poison record was dropped. A record
//    that large never leaves the host (it is over the journal's bound), so a
//    second run sends one of 900 KB that does not compress to a collector
//    taking bodies up to 512 KiB, which answers it 413.
//  - wrong key: the host's key is not the collector's, so every upload is
//    refused with 400. The host reports 50 actions a second for SECONDS; its
//    resident memory, the Documents directory's size and its CPU time are
//    sampled every second. Prints the first and the last third of the window
//    side by side, and what the delivery handler was told.
//
//   qxlog_fault_check COLLECTOR [SECONDS]      (SECONDS of wrong key, default 20)
// Exits 1 when a goal is missed: fewer than 250 of 250, or memory, disk or
// CPU growing, or a record not ending dropped with a reason.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kKey = "0123456789abcdef";
constexpr int kAfterPoison = 250;
constexpr int kReportsPerSecond = 50;

int freePort() {
  // The collector is told a port; one the kernel just handed out is free.
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  int port = ::bind(fd, raw, length) == 0 && ::getsockname(fd, raw, &length) == 0
                 ? ntohs(address.sin_port)
                 : 0;
  ::close(fd);
  return port;
}

bool listening(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return ok;
}

pid_t startCollector(const std::string& program, const fs::path& database, int port,
                     const std::string& maxBody) {
  pid_t pid = ::fork();
  if (pid == 0) {
    int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    const std::string listen = "127.0.0.1:" + std::to_string(port);
    ::execl(program.c_str(), program.c_str(), "--listen", listen.c_str(), "--key", kKey, "--db",
            database.c_str(), "--push-interval-time", "1000", "--push-interval-number", "20",
            "--max-body", maxBody.c_str(), "--quiet", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  for (int i = 0; i < 500 && !listening(port); ++i) std::this_thread::sleep_for(milliseconds(10));
  return pid;
}

void stop(pid_t pid) {
  if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
}

// What a host's delivery handler was told, on its main queue.
struct Told {
  std::atomic<std::size_t> confirmed{0}, dropped{0}, droppedWithoutReason{0};
  std::string firstReason;  // of the first drop; main queue only
};
Told g_told;

void onBatch(QXLogBatchOutcome outcome, size_t records, const char* reason, void*) {
  if (outcome == QXLogBatchConfirmed) g_told.confirmed += records;
  if (outcome == QXLogBatchDropped) {
    if (g_told.dropped == 0 && reason != nullptr) g_told.firstReason = reason;
    g_told.dropped += records;
    if (reason == nullptr || *reason == '\0') g_told.droppedWithoutReason += records;
  }
}

void serve(milliseconds span) {
  for (auto end = Clock::now() + span; Clock::now() < end;) {
    QXLogMainQueueDrain();
    std::this_thread::sleep_for(milliseconds(2));
  }
}

// At least once, batch size from the collector's settings answer.
void configure(const fs::path& documents, int port, const char* key) {
  const std::string server = "http://127.0.0.1:" + std::to_string(port);
  QXLogSetDocumentsDirectory(documents.c_str());
  QXLogSetConsoleHandler([](const char*, void*) {}, nullptr);
  QXLogSetDeliveryHandler(onBatch, nullptr);
  QXLogSetDelivery(QXLogDeliveryAtLeastOnce);
  QXLogFormatSetString("uid", "fault-check");
  QXLogFormatSetString("idfa", "fault-host");
  QXLogFormatSetString("logEncryptionKey", key);
  QXLogFormatSetString("pushUrl", (server + "/settings").c_str());
  QXLogFormatSetString("pushLogUrl", (server + "/log").c_str());
  QXLogFormatSetString("pushDiagnosisUrl", (server + "/diagnosis").c_str());
  QXLogCenterGetLogServerInfo();
  QXLogMessageFormat& format = QXLogCenter::center().format();
  for (auto end = Clock::now() + std::chrono::seconds(5);
       Clock::now() < end && format.limitLogCount() <= 1;) {
    serve(milliseconds(10));
  }
  logEnvReady(true);
}

// Writes `text` to `fd` and exits with `status`.
[[noreturn]] void finish(int fd, const std::string& text, int status) {
  if (::write(fd, text.data(), text.size()) < 0) status = 1;
  ::_exit(status);
}

// The poison host: writes "MILLISECONDS REASON", the time from the poison
// record's report to the flush's end and why the record was dropped.
[[noreturn]] void poisonHost(const fs::path& documents, int port, std::size_t bytes, int out) {
  configure(documents, port, kKey);
  std::string poison(bytes, 'p');
  std::minstd_rand random(7);
  for (char& c : poison) c = static_cast<char>('a' + random() % 26);
  const auto start = Clock::now();
  recordActionLog("poison", poison.c_str());
  for (int i = 1; i <= kAfterPoison; ++i) {
    recordActionLog(std::to_string(i).c_str(), "1");
    QXLogMainQueueDrain();
  }
  QXLogFlush(30000);
  const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
  serve(milliseconds(100));
  finish(out, std::to_string(took.count()) + " " + g_told.firstReason, 0);
}

// The wrong-key host: reports for `seconds`, flushes, and writes
// "REPORTED CONFIRMED DROPPED DROPPED_WITHOUT_REASON".
[[noreturn]] void wrongKeyHost(const fs::path& documents, int port, int seconds, int out) {
  configure(documents, port, "fedcba9876543210");
  std::size_t reported = 0;
  const auto start = Clock::now();
  for (auto next = start; next < start + std::chrono::seconds(seconds);
       next += milliseconds(1000 / kReportsPerSecond)) {
    recordActionLog(std::to_string(++reported).c_str(), "1");
    QXLogMainQueueDrain();
    std::this_thread::sleep_until(next);
  }
  QXLogFlush(30000);
  serve(milliseconds(200));
  std::ostringstream text;
  text << reported << ' ' << g_told.confirmed << ' ' << g_told.dropped << ' '
       << g_told.droppedWithoutReason;
  finish(out, text.str(), 0);
}

// Forks `host(out)`; returns its pid and the read end of its pipe.
template <typename Host>
pid_t forkHost(Host host, int& readEnd) {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  std::fflush(stdout);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::close(ends[0]);
    ::alarm(1200);  // a host that hangs is killed
    host(ends[1]);
  }
  ::close(ends[1]);
  readEnd = ends[0];
  return pid;
}

std::string readAll(int fd) {
  std::string text;
  char buffer[256];
  for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, got);
  ::close(fd);
  return text;
}

int storedNumbered(const fs::path& database) {
  int stored = 0;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* query = nullptr;
    sqlite3_prepare_v2(db,
                       "SELECT COUNT(DISTINCT json_extract(body, '$.a_1')) FROM records "
                       "WHERE type = '2' AND json_extract(body, '$.a_1') != 'poison'",
                       -1, &query, nullptr);
    if (query != nullptr && sqlite3_step(query) == SQLITE_ROW)
      stored = sqlite3_column_int(query, 0);
    sqlite3_finalize(query);
  }
  sqlite3_close(db);
  return stored;
}

bool poisonCheck(const std::string& collector, const fs::path& work, const char* name,
                 std::size_t bytes, const std::string& maxBody) {
  const int port = freePort();
  const fs::path documents = work / name;
  pid_t server = startCollector(collector, documents.string() + ".db", port, maxBody);
  fs::create_directories(documents);
  int out = -1;
  pid_t host = forkHost([&](int fd) { poisonHost(documents, port, bytes, fd); }, out);
  const std::string told = readAll(out);
  ::waitpid(host, nullptr, 0);
  stop(server);
  const int stored = storedNumbered(documents.string() + ".db");
  long long took = -1;
  char reason[64] = "-";
  std::sscanf(told.c_str(), "%lld %63[^\n]", &took, reason);
  const bool met = stored == kAfterPoison && took >= 0 && took <= 30000;
  std::printf(
      "poison record, %s (collector takes %s bytes): dropped (%s); %d of %d reported "
      "after it arrived, the flush ended after %lld ms (goal: %d of %d within 30 s)%s\n",
      name, maxBody.c_str(), reason, stored, kAfterPoison, took, kAfterPoison, kAfterPoison,
      met ? "" : " NOT MET");
  return met;
}

struct Sample {
  double rssMb = 0, diskKb = 0, cpuSeconds = 0;
};

Sample sample(pid_t pid, const fs::path& documents) {
  Sample s;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) s.rssMb = std::strtod(line.c_str() + 6, nullptr) / 1024.0;
  }
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  // Fields after the command's closing parenthesis; utime and stime are the
  // 12th and 13th of them.
  if (std::size_t close = text.rfind(')'); close != std::string::npos) {
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    for (int i = 1; i <= 13 && fields >> field; ++i) {
      if (i >= 12) s.cpuSeconds += std::strtod(field.c_str(), nullptr) / sysconf(_SC_CLK_TCK);
    }
  }
  std::error_code ignored;
  for (const auto& entry : fs::recursive_directory_iterator(documents, ignored)) {
    if (entry.is_regular_file(ignored)) s.diskKb += entry.file_size(ignored) / 1024.0;
  }
  return s;
}

bool wrongKeyCheck(const std::string& collector, const fs::path& work, int seconds) {
  const int port = freePort();
  pid_t server = startCollector(collector, work / "wrong-key.db", port, "8388608");
  const fs::path documents = work / "wrong-key";
  fs::create_directories(documents);
  int out = -1;
  pid_t host = forkHost([&](int fd) { wrongKeyHost(documents, port, seconds, fd); }, out);
  std::vector<Sample> samples;
  for (int i = 0; i < seconds; ++i) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    samples.push_back(sample(host, documents));
  }
  const std::string told = readAll(out);
  ::waitpid(host, nullptr, 0);
  stop(server);
  std::size_t reported = 0, confirmed = 0, dropped = 0, withoutReason = 0;
  std::sscanf(told.c_str(), "%zu %zu %zu %zu", &reported, &confirmed, &dropped, &withoutReason);
  // Each third's peaks, and the CPU share spent within each third.
  const std::size_t third = std::max<std::size_t>(samples.size() / 3, 1);
  auto peak = [&](std::size_t from, double Sample::*field) {
    double most = 0;
    for (std::size_t i = from; i < std::min(from + third, samples.size()); ++i) {
      most = std::max(most, samples[i].*field);
    }
    return most;
  };
  auto cpuShare = [&](std::size_t from) {
    std::size_t to = std::min(from + third, samples.size()) - 1;
    double before = from == 0 ? 0 : samples[from - 1].cpuSeconds;
    return 100.0 * (samples[to].cpuSeconds - before) / static_cast<double>(to + 1 - from);
  };
  const std::size_t last = samples.size() - third;
  const double rss0 = peak(0, &Sample::rssMb), rss1 = peak(last, &Sample::rssMb);
  const double disk0 = peak(0, &Sample::diskKb), disk1 = peak(last, &Sample::diskKb);
  const double cpu0 = cpuShare(0), cpu1 = cpuShare(last);
  // Flat: no more than 2 MB or 10 % more memory; the journal's disk within
  // two segments (its tail grows to 4 MiB before settled segments go) or
  // twice the first third; CPU not beyond twice the first third's plus 2 %.
  double diskPeak = 0;
  for (const Sample& s : samples) diskPeak = std::max(diskPeak, s.diskKb);
  const bool flat = rss1 <= std::max(rss0 + 2, rss0 * 1.1) &&
                    disk1 <= std::max(8192.0, 2 * disk0) && cpu1 <= 2 * cpu0 + 2;
  const bool allDropped =
      reported > 0 && confirmed == 0 && dropped == reported && withoutReason == 0;
  std::printf(
      "wrong key, %d s at %d reports/s: peak RSS %.1f -> %.1f MB, Documents %.0f -> %.0f kB "
      "(peak %.0f kB), "
      "CPU %.1f%% -> %.1f%% (first -> last third); %zu reported, %zu dropped with a reason, "
      "%zu confirmed (goal: flat, every record dropped with a reason)%s\n",
      seconds, kReportsPerSecond, rss0, rss1, disk0, disk1, diskPeak, cpu0, cpu1, reported,
      dropped - withoutReason, confirmed, flat && allDropped ? "" : " NOT MET");
  return flat && allDropped;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: qxlog_fault_check COLLECTOR [SECONDS]\n");
    return 2;
  }
  const int seconds = argc > 2 ? std::max(std::atoi(argv[2]), 3) : 20;
  const fs::path work = fs::temp_directory_path() / ("qxlog-faults-" + std::to_string(::getpid()));
  fs::create_directories(work);
  bool met = poisonCheck(argv[1], work, "17 MB", 17'000'000, "8388608");
  met = poisonCheck(argv[1], work, "900 KB", 900'000, "524288") && met;
  std::fflush(stdout);
  met = wrongKeyCheck(argv[1], work, seconds) && met;
  std::error_code ignored;
  fs::remove_all(work, ignored);
  return met ? 0 : 1;
}
