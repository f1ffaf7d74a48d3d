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
#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include "bench/reliability/ReliabilityHarness.h"

namespace {

using namespace qxlog::reliability;

constexpr int kAfterPoison = 250;
constexpr int kReportsPerSecond = 50;

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

// At least once, batch size from the collector's settings answer.
void configure(const fs::path& documents, const std::string& server, const char* key) {
  QXLogSetDocumentsDirectory(documents.c_str());
  QXLogSetDeliveryHandler(onBatch, nullptr);
  configureHost(server, key, QXLogDeliveryAtLeastOnce, "fault-check");
}

// Writes `text` to `fd`: the host's exit status.
int finish(int fd, const std::string& text) {
  return ::write(fd, text.data(), text.size()) < 0 ? 1 : 0;
}

// The poison host: writes "MILLISECONDS REASON", the time from the poison
// record's report to the flush's end and why the record was dropped.
int poisonHost(const fs::path& documents, const std::string& server, std::size_t bytes, int out) {
  configure(documents, server, kKey);
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
  serveMainQueue(milliseconds(100));
  return finish(out, std::to_string(took.count()) + " " + g_told.firstReason);
}

// The wrong-key host: reports for `seconds`, flushes, and writes
// "REPORTED CONFIRMED DROPPED DROPPED_WITHOUT_REASON".
int wrongKeyHost(const fs::path& documents, const std::string& server, int seconds, int out) {
  configure(documents, server, "fedcba9876543210");
  std::size_t reported = 0;
  const auto start = Clock::now();
  for (auto next = start; next < start + std::chrono::seconds(seconds);
       next += milliseconds(1000 / kReportsPerSecond)) {
    recordActionLog(std::to_string(++reported).c_str(), "1");
    QXLogMainQueueDrain();
    std::this_thread::sleep_until(next);
  }
  QXLogFlush(30000);
  serveMainQueue(milliseconds(200));
  std::ostringstream text;
  text << reported << ' ' << g_told.confirmed << ' ' << g_told.dropped << ' '
       << g_told.droppedWithoutReason;
  return finish(out, text.str());
}

bool poisonCheck(const std::string& collector, const fs::path& work, const char* name,
                 std::size_t bytes, const std::string& maxBody) {
  const fs::path documents = work / name;
  Collector server(collector, documents.string() + ".db", 0, {"--max-body", maxBody});
  server.start();
  fs::create_directories(documents);
  int out = -1;
  pid_t host =
      forkChild(1200, &out, [&](int fd) { return poisonHost(documents, server.url(), bytes, fd); });
  const std::string told = readAll(out);
  ::waitpid(host, nullptr, 0);
  server.kill();
  const auto numbers = storedActionNumbers(documents.string() + ".db");
  const auto stored = std::count_if(numbers.begin(), numbers.end(), [](const auto& entry) {
    return entry.first >= 1 && entry.first <= kAfterPoison;
  });
  long long took = -1;
  char reason[64] = "-";
  std::sscanf(told.c_str(), "%lld %63[^\n]", &took, reason);
  const bool met = stored == kAfterPoison && took >= 0 && took <= 30000;
  std::printf(
      "poison record, %s (collector takes %s bytes): dropped (%s); %d of %d reported "
      "after it arrived, the flush ended after %lld ms (goal: %d of %d within 30 s)%s\n",
      name, maxBody.c_str(), reason, static_cast<int>(stored), kAfterPoison, took, kAfterPoison,
      kAfterPoison, met ? "" : " NOT MET");
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
  Collector server(collector, (work / "wrong-key.db").string(), 0, {"--max-body", "8388608"});
  server.start();
  const fs::path documents = work / "wrong-key";
  fs::create_directories(documents);
  int out = -1;
  pid_t host = forkChild(
      1200, &out, [&](int fd) { return wrongKeyHost(documents, server.url(), seconds, fd); });
  std::vector<Sample> samples;
  for (int i = 0; i < seconds; ++i) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    samples.push_back(sample(host, documents));
  }
  const std::string told = readAll(out);
  ::waitpid(host, nullptr, 0);
  server.kill();
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
