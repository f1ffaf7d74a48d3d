// What the reliability programs share: child processes and their pipes, a
// qxlog-collector on 127.0.0.1, a host configured against it, and the count of
// numbered actions a collector's SQLite store holds.
#ifndef QXLOG_BENCH_RELIABILITY_RELIABILITYHARNESS_H_
#define QXLOG_BENCH_RELIABILITY_RELIABILITYHARNESS_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"

namespace qxlog::reliability {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

inline constexpr const char* kKey = "0123456789abcdef";

// Binds to 127.0.0.1:port (0: any free port) and returns the port bound, or
// with `connect` connects there and returns 0 when nothing listens.
inline int loopback(int port, bool connect) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  bool ok = connect ? ::connect(fd, raw, length) == 0
                    : ::bind(fd, raw, length) == 0 && ::getsockname(fd, raw, &length) == 0;
  ::close(fd);
  return ok ? ntohs(address.sin_port) : 0;
}

// Starts `argv` with standard output on a pipe whose read end goes to
// `*output` (when given; otherwise discarded) and standard error discarded.
inline pid_t spawn(const std::vector<std::string>& argv, int* output = nullptr) {
  int ends[2] = {-1, -1};
  if (output != nullptr && ::pipe(ends) != 0) return -1;
  pid_t pid = ::fork();
  if (pid == 0) {
    int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDERR_FILENO);
    ::dup2(output != nullptr ? ends[1] : null, STDOUT_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  if (output != nullptr) {
    ::close(ends[1]);
    *output = ends[0];
  }
  return pid;
}

// Forks a child that runs `child(writeEnd)` and exits with what it returns,
// killed after `alarmSeconds` if it hangs; `*readEnd` gets the pipe's other end.
template <typename Child>
pid_t forkChild(unsigned alarmSeconds, int* readEnd, Child child) {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  std::fflush(stdout);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::close(ends[0]);
    ::alarm(alarmSeconds);
    ::_exit(child(ends[1]));
  }
  ::close(ends[1]);
  *readEnd = ends[0];
  return pid;
}

// Reads `fd` to its end and closes it.
inline std::string readAll(int fd) {
  std::string text;
  char buffer[256];
  for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(fd);
  return text;
}

// A qxlog-collector with batch size 20 and a push interval of a second.
class Collector {
 public:
  Collector(std::string program, std::string database, int port = 0,
            std::vector<std::string> options = {})
      : program_(std::move(program)),
        database_(std::move(database)),
        port_(port > 0 ? port : loopback(0, false)),
        options_(std::move(options)) {}
  ~Collector() { kill(); }
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  // Starts it and waits up to 5 s for it to listen.
  void start() {
    std::vector<std::string> argv = {program_,
                                     "--listen",
                                     "127.0.0.1:" + std::to_string(port_),
                                     "--key",
                                     kKey,
                                     "--db",
                                     database_,
                                     "--push-interval-time",
                                     "1000",
                                     "--push-interval-number",
                                     "20",
                                     "--quiet"};
    argv.insert(argv.end(), options_.begin(), options_.end());
    pid_ = spawn(argv);
    for (int i = 0; i < 500 && loopback(port_, true) == 0; ++i) {
      std::this_thread::sleep_for(milliseconds(10));
    }
  }
  void kill() {
    if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  std::string program_, database_;
  int port_;
  std::vector<std::string> options_;
  pid_t pid_ = -1;
};

// Serves this process's main queue for `span`, or until `done()` holds.
template <typename Done>
void serveMainQueue(milliseconds span, Done done) {
  for (auto end = Clock::now() + span; Clock::now() < end && !done();) {
    QXLogMainQueueDrain();
    std::this_thread::sleep_for(milliseconds(2));
  }
}
inline void serveMainQueue(milliseconds span) {
  serveMainQueue(span, [] { return false; });
}

// Configures this process's host for `server` (console silent), asks for its
// settings and waits up to 5 s for the batch size they carry, then starts
// reporting. The Documents directory and handlers are the caller's.
inline void configureHost(const std::string& server, const char* key, QXLogDelivery delivery,
                          const char* uid) {
  QXLogSetConsoleHandler([](const char*, void*) {}, nullptr);
  QXLogSetDelivery(delivery);
  QXLogFormatSetString("uid", uid);
  QXLogFormatSetString("idfa", (std::string(uid) + "-host").c_str());
  QXLogFormatSetString("logEncryptionKey", key);
  QXLogFormatSetString("pushUrl", (server + "/settings").c_str());
  QXLogFormatSetString("pushLogUrl", (server + "/log").c_str());
  QXLogFormatSetString("pushDiagnosisUrl", (server + "/diagnosis").c_str());
  QXLogCenterGetLogServerInfo();
  QXLogMessageFormat& format = QXLogCenter::center().format();
  serveMainQueue(std::chrono::seconds(5), [&] { return format.limitLogCount() > 1; });
  logEnvReady(true);
}

// Each numbered action name ("a_1") that a collector's SQLite store holds,
// with how often it was stored; names that are not numbers count as 0.
inline std::map<uint64_t, std::size_t> storedActionNumbers(const std::string& database) {
  std::map<uint64_t, std::size_t> numbers;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* query = nullptr;
    sqlite3_prepare_v2(db, "SELECT json_extract(body, '$.a_1') FROM records WHERE type = '2'", -1,
                       &query, nullptr);
    while (query != nullptr && sqlite3_step(query) == SQLITE_ROW) {
      const unsigned char* text = sqlite3_column_text(query, 0);
      if (text != nullptr) {
        ++numbers[std::strtoull(reinterpret_cast<const char*>(text), nullptr, 10)];
      }
    }
    sqlite3_finalize(query);
  }
  sqlite3_close(db);
  return numbers;
}

struct Counts {
  std::size_t reported = 0, delivered = 0, lost = 0, duplicated = 0;
};

// The numbers hosts reported against those stored, with how often each was.
inline Counts tally(const std::set<uint64_t>& reported,
                    const std::map<uint64_t, std::size_t>& stored) {
  Counts counts;
  counts.reported = reported.size();
  for (const auto& [number, times] : stored) {
    if (reported.count(number) != 0) ++counts.delivered;
    counts.duplicated += times - 1;
  }
  counts.lost = counts.reported - counts.delivered;
  return counts;
}

}  // namespace qxlog::reliability

#endif  // QXLOG_BENCH_RELIABILITY_RELIABILITYHARNESS_H_
