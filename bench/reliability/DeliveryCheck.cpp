// The delivery check: host processes report numbered actions to a real
// qxlog-collector on 127.0.0.1 with a batch size of 20, while nothing goes
// wrong, while the collector is killed and restarted, and while the host is
// killed and restarted over the same Documents directory. For each delivery
// mode it counts what the hosts reported (reports that had returned), what
// the collector stored, what was lost and what arrived more than once.
//
//   qxlog_delivery_check COLLECTOR HOST [RECORDS]
// Exits 1 when the at-least-once mode lost a record.
//
// The fleet check: two collectors on one PostgreSQL database behind a load
// balancer that the caller runs (nginx on BALANCER_PORT, balancing
// PORT_A and PORT_B); an at-least-once host reports through the balancer
// while collector A is killed with SIGKILL and restarted twice. What was
// stored is read back with qxlog-decode (beside COLLECTOR).
//
//   qxlog_delivery_check --fleet COLLECTOR HOST DATABASE_URI PORT_A PORT_B BALANCER_PORT [RECORDS]
// Exits 1 when a record was lost or stored twice.
#include <cstring>

#include "bench/reliability/ReliabilityHarness.h"

namespace {

using namespace qxlog::reliability;

// One host run: reports `count` numbers from `first`; `onAck` is told each
// acknowledged number and may end the run early by returning false (the host
// is then killed with SIGKILL).
template <typename OnAck>
void runHost(const std::string& host, const fs::path& documents, const std::string& server,
             const std::string& mode, uint64_t first, uint64_t count, OnAck onAck) {
  int output = -1;
  pid_t pid = spawn(
      {host, documents.string(), server, kKey, mode, std::to_string(first), std::to_string(count)},
      &output);
  uint64_t number = 0;
  bool killed = false;
  while (!killed && ::read(output, &number, sizeof number) == static_cast<ssize_t>(sizeof number)) {
    killed = !onAck(number);
  }
  if (killed) ::kill(pid, SIGKILL);
  ::close(output);
  ::waitpid(pid, nullptr, 0);
}

// The action names the store at `database` holds, as qxlog-decode prints them.
std::map<uint64_t, std::size_t> decodedActionNumbers(const std::string& decode,
                                                     const std::string& database) {
  std::map<uint64_t, std::size_t> names;
  const std::string command = "'" + decode + "' --records '" + database + "' --type action --json";
  if (std::FILE* lines = ::popen(command.c_str(), "r")) {
    char line[4096];
    while (std::fgets(line, sizeof line, lines) != nullptr) {
      const char* name = std::strstr(line, "\"a_1\":\"");
      if (name != nullptr) ++names[std::strtoull(name + 7, nullptr, 10)];
    }
    ::pclose(lines);
  }
  return names;
}

int fleetCheck(int argc, char** argv) {
  if (argc < 8) {
    std::fprintf(stderr,
                 "usage: qxlog_delivery_check --fleet COLLECTOR HOST DATABASE_URI PORT_A PORT_B "
                 "BALANCER_PORT [RECORDS]\n");
    return 2;
  }
  const std::string collector = argv[2], host = argv[3], database = argv[4];
  const uint64_t records = argc > 8 ? std::strtoull(argv[8], nullptr, 10) : 20000;
  Collector a(collector, database, std::atoi(argv[5]));
  Collector b(collector, database, std::atoi(argv[6]));
  a.start();
  b.start();
  const std::string balancer = "http://127.0.0.1:" + std::string(argv[7]);
  fs::path work = fs::temp_directory_path() / ("qxlog-fleet-" + std::to_string(::getpid()));
  fs::create_directories(work / "Documents");
  std::set<uint64_t> reported;
  const uint64_t killEvery = records / 3;
  runHost(host, work / "Documents", balancer, "at-least-once", 1000000000ULL, records,
          [&](uint64_t n) {
            reported.insert(n);
            if (reported.size() % killEvery == 0 && reported.size() < records) {
              a.kill();
              std::this_thread::sleep_for(std::chrono::milliseconds(300));
              a.start();
            }
            return true;
          });
  a.kill();
  b.kill();
  const fs::path decode = fs::path(collector).parent_path() / "qxlog-decode";
  const Counts c = tally(reported, decodedActionNumbers(decode.string(), database));
  std::printf("%-14s %-40s %9s %9s %6s %10s\n", "mode", "scenario", "reported", "delivered", "lost",
              "duplicated");
  std::printf("%-14s %-40s %9zu %9zu %6zu %10zu\n", "at-least-once",
              "2 collectors, nginx, one killed 2 times", c.reported, c.delivered, c.lost,
              c.duplicated);
  std::error_code ignored;
  fs::remove_all(work, ignored);
  return c.lost == 0 && c.duplicated == 0 && c.reported == records ? 0 : 1;
}

struct Scenario {
  const char* name;
  int collectorKills;
  int hostKills;
};

Counts runScenario(const Scenario& scenario, const std::string& mode, const std::string& collector,
                   const std::string& host, uint64_t records, const fs::path& work) {
  fs::path documents = work / "Documents";
  fs::create_directories(documents);
  Collector server(collector, (work / "collector.db").string());
  server.start();
  std::set<uint64_t> reported;
  uint64_t collectorKillEvery = records / (scenario.collectorKills + 1);
  uint64_t hostKillEvery = records / (scenario.hostKills + 1);
  int hostKills = 0;
  // Each host run numbers its reports from its own base, so that a report
  // whose acknowledgement the kill cut off is never reported again.
  for (uint64_t run = 0;; ++run) {
    uint64_t base = (run + 1) * 1000000000ULL;
    bool killedHost = false;
    runHost(host, documents, server.url(), mode, base, records - reported.size(), [&](uint64_t n) {
      reported.insert(n);
      if (scenario.collectorKills > 0 && reported.size() % collectorKillEvery == 0 &&
          reported.size() < records) {
        server.kill();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        server.start();
      }
      if (hostKills < scenario.hostKills && reported.size() >= (hostKills + 1) * hostKillEvery) {
        ++hostKills;
        killedHost = true;
        return false;
      }
      return true;
    });
    if (!killedHost) break;
  }
  server.kill();
  return tally(reported, storedActionNumbers((work / "collector.db").string()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--fleet") return fleetCheck(argc, argv);
  if (argc < 3) {
    std::fprintf(stderr, "usage: qxlog_delivery_check COLLECTOR HOST [RECORDS]\n");
    return 2;
  }
  uint64_t records = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 20000;
  const Scenario scenarios[] = {{"nothing goes wrong", 0, 0},
                                {"collector killed 3 times", 3, 0},
                                {"host killed 10 times", 0, 10}};
  fs::path root = fs::temp_directory_path() / ("qxlog-delivery-" + std::to_string(::getpid()));
  int status = 0;
  std::printf("%-14s %-26s %9s %9s %6s %10s\n", "mode", "scenario", "reported", "delivered", "lost",
              "duplicated");
  for (const char* mode : {"described", "at-least-once"}) {
    for (const Scenario& scenario : scenarios) {
      fs::path work = root / (std::string(mode) + "-" + std::to_string(&scenario - scenarios));
      Counts c = runScenario(scenario, mode, argv[1], argv[2], records, work);
      std::printf("%-14s %-26s %9zu %9zu %6zu %10zu\n", mode, scenario.name, c.reported,
                  c.delivered, c.lost, c.duplicated);
      std::fflush(stdout);
      if (std::string(mode) == "at-least-once" && (c.lost != 0 || c.reported < records)) status = 1;
    }
  }
  std::error_code ignored;
  fs::remove_all(root, ignored);
  return status;
}
