// qxlog-demo: a host that plays a short viewing session and checks that the
// log server received everything it reported.
//
// By default it embeds a collector (the same code as qxlog-collector, in this
// process) on a free port of 127.0.0.1, which prints each upload decoded as it
// arrives; --server URL points the host at a running qxlog-collector instead.
// The host itself uses only the C interface of QXLog/QXLog.h. It serves the
// main queue while it waits, and asks the server's /received endpoint what
// it holds for this run's device id. Exit status 0 when everything arrived.
#include <curl/curl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogPlayEvents.h"
#include "collector/server/LocalCollector.h"
#include "examples/ReceivedCounts.h"

namespace {

using qxlog::examples::count;
using qxlog::examples::fetchJson;

// Milliseconds since 1970 on the wall clock.
int64_t nowMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A player event through the C interface, in the play-event vocabulary.
void playAction(QXLogPlayOperation operation, QXLogPlayStatus status, int64_t startMillis,
                int64_t endMillis, int64_t startPosition, int64_t endPosition, int64_t playTime) {
  recordPlayActionLog(QXLogPlayOperationText(operation), QXLogPlayStatusText(status),
                      std::to_string(startMillis).c_str(), std::to_string(endMillis).c_str(),
                      std::to_string(startPosition).c_str(), std::to_string(endPosition).c_str(),
                      std::to_string(playTime).c_str());
}

using Clock = std::chrono::steady_clock;

constexpr const char* kUsage = R"(usage: qxlog-demo [options]

  --server URL     report to the collector at URL (default: start one in this process)
  --key KEY        the logEncryptionKey (default demo-key-0123456; must match the server's)
  --api-token TOKEN  the API token of the collector at --server, for its /received
  --db PATH        the embedded collector's database (default: a temporary file)
  --timeout SEC    how long to wait for everything to arrive (default 20)
  --quiet          do not print the uploads as the embedded collector receives them
  --explain        print every key of the uploads with its meaning
  --trace          print the library's console lines on stderr
)";

struct Settings {
  std::optional<std::string> server;
  std::string apiToken;
  std::string key = "demo-key-0123456";
  std::optional<std::string> database;
  double timeoutSeconds = 20;
  bool quiet = false;
  bool explain = false;
  bool trace = false;
};

// What the session reported, by the names the server's counts use.
struct Expected {
  std::map<std::string, int64_t> records;      // per "a_t"
  std::map<std::string, int64_t> playActions;  // per video type, non-empty only
  int64_t diagnoses = 0;
};

void console(const char* line, void* trace) {
  if (*static_cast<bool*>(trace)) std::fprintf(stderr, "qxlog: %s\n", line);
}

void serveMainQueueFor(std::chrono::milliseconds period) {
  const auto until = Clock::now() + period;
  while (Clock::now() < until) {
    QXLogMainQueueDrain();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

bool everythingArrived(const nlohmann::json& received, const Expected& expected) {
  for (const auto& [type, reported] : expected.records) {
    // Play actions may be folded under several copies of their play header,
    // so a play header is complete when its actions are; other records count.
    if (expected.playActions.count(type)) {
      if (count(received, "records", type) < 1) return false;
    } else if (count(received, "records", type) != reported) {
      return false;
    }
  }
  for (const auto& [type, reported] : expected.playActions) {
    if (count(received, "play_actions", type) != reported) return false;
  }
  return received.value("diagnoses", int64_t{0}) == expected.diagnoses;
}

void printSummary(const nlohmann::json& received, const Expected& expected,
                  const std::string& device) {
  static const std::map<std::string, const char*> kNames = {
      {"0", "launch"},           {"1", "film play"},    {"2", "action"}, {"3", "download"},
      {"5", "short video play"}, {"6", "channel play"}, {"7", "network"}};
  std::printf("\nsummary for device %s (%lld uploads)\n", device.c_str(),
              static_cast<long long>(received.value("uploads", int64_t{0})));
  std::printf("  %-28s %8s %8s\n", "", "reported", "received");
  for (const auto& [type, reported] : expected.records) {
    const std::string name = kNames.count(type) ? kNames.at(type) : "type " + type;
    if (expected.playActions.count(type)) {
      std::printf("  %-28s %8s %8lld\n", (name + " headers").c_str(), ">=1",
                  static_cast<long long>(count(received, "records", type)));
      std::printf("  %-28s %8lld %8lld\n", (name + " actions").c_str(),
                  static_cast<long long>(expected.playActions.at(type)),
                  static_cast<long long>(count(received, "play_actions", type)));
    } else {
      std::printf("  %-28s %8lld %8lld\n", name.c_str(), static_cast<long long>(reported),
                  static_cast<long long>(count(received, "records", type)));
    }
  }
  std::printf("  %-28s %8lld %8lld\n", "diagnosis", static_cast<long long>(expected.diagnoses),
              static_cast<long long>(received.value("diagnoses", int64_t{0})));
}

// The viewing session. Each report is counted in `expected`.
void playSession(Expected& expected) {
  // The download starts with the session; its progress is reported at the end.
  QXLogCenterSaveActionStartTime("film-42");
  const auto downloadStart = std::chrono::steady_clock::now();

  recordLaunchLog("cold");
  ++expected.records["0"];

  for (const char* action : {"home.open", "search.submit", "film.detail"}) {
    recordActionLog(action, "0");
    ++expected.records["2"];
  }

  recordNetworkLog("http://127.0.0.1/api/v1/home", 240, "200");
  ++expected.records["7"];

  // A film with player events in the play-event vocabulary (times in ms since
  // 1970, positions in ms of media time). The second buffering report repeats
  // the first one's start time, so the library drops it (it folds in as {}).
  const int64_t t = nowMillis();
  recordMoviePlayLog("42", "http://127.0.0.1/media/film-42.m3u8", "home", false, "0");
  ++expected.records["1"];
  playAction(QXLogPlayOperationStart, QXLogPlayStatusPlaying, t, t, 0, 0, 0);
  playAction(QXLogPlayOperationBuffering, QXLogPlayStatusBuffering, t + 3000, t + 4200, 3000, 3000,
             1200);
  playAction(QXLogPlayOperationBuffering, QXLogPlayStatusBuffering, t + 3000, t + 4400, 3000, 3000,
             1400);
  playAction(QXLogPlayOperationEnd, QXLogPlayStatusStopped, t + 8000, t + 8000, 8000, 8000, 8000);
  expected.playActions["1"] += 3;

  recordSmallPlayLog("short-7", "http://127.0.0.1/media/short-7.mp4", "feed", false, "1");
  ++expected.records["5"];
  playAction(QXLogPlayOperationStart, QXLogPlayStatusPlaying, t + 1000, t + 1000, 0, 0, 0);
  expected.playActions["5"] += 1;

  recordChannelPlayLog("channel-1", "http://127.0.0.1/live/channel-1.m3u8", "live", false, "0");
  ++expected.records["6"];
  playAction(QXLogPlayOperationStart, QXLogPlayStatusPlaying, t + 2000, t + 2000, 0, 0, 0);
  playAction(QXLogPlayOperationEnd, QXLogPlayStatusStopped, t + 5000, t + 5000, 3000, 3000, 3000);
  expected.playActions["6"] += 2;

  recordDiagnosLog("http://127.0.0.1/media/film-42.m3u8", "timeout", "1000", "9000", "1500", "8000",
                   "0", "720p");
  ++expected.diagnoses;

  // The rate is averaged over whole seconds since the start: a report within
  // the first second would read "inf".
  std::this_thread::sleep_until(downloadStart + std::chrono::milliseconds(1100));
  recordDownLog("film-42", "http://127.0.0.1/media/film-42.mp4", "Film 42", "12.5",
                "/downloads/film-42.mp4", "1");
  ++expected.records["3"];
}

int run(const Settings& settings) {
  namespace fs = std::filesystem;
  char pattern[] = "/tmp/qxlog-demo-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    std::perror("qxlog-demo: mkdtemp");
    return 1;
  }
  const fs::path scratch = pattern;
  struct RemoveScratch {
    fs::path path;
    ~RemoveScratch() {
      std::error_code ignored;
      fs::remove_all(path, ignored);
    }
  } removeScratch{scratch};

  std::unique_ptr<qxlog::collector::LocalCollector> collector;
  std::string base;
  if (settings.server) {
    base = *settings.server;
    while (!base.empty() && base.back() == '/') base.pop_back();
  } else {
    qxlog::collector::LocalCollectorOptions options;
    options.database = settings.database.value_or((scratch / "collector.db").string());
    options.collector.key = settings.key;
    // A short interval keeps the run short: the push timer waits the square
    // of the interval in seconds.
    options.collector.pushIntervalTime = 1000;
    options.collector.pushIntervalNumber = 50;
    options.output = settings.quiet     ? qxlog::collector::Output::kQuiet
                     : settings.explain ? qxlog::collector::Output::kExplained
                                        : qxlog::collector::Output::kReadable;
    options.name = "collector";
    std::string error;
    collector = qxlog::collector::LocalCollector::start(options, error);
    if (!collector) {
      std::fprintf(stderr, "qxlog-demo: cannot start the collector: %s\n", error.c_str());
      return 1;
    }
    base = collector->baseUrl();
    std::printf("collector listening on %s, database %s\n", base.c_str(), options.database.c_str());
  }

  // A device id of its own, so that a shared server's earlier data does not
  // count for this run.
  const std::string device = "demo-" + std::to_string(::getpid()) + "-" +
                             std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                std::chrono::system_clock::now().time_since_epoch())
                                                .count());

  bool trace = settings.trace;
  QXLogSetConsoleHandler(console, &trace);
  QXLogSetDocumentsDirectory((scratch / "Documents").c_str());
  QXLogFormatSetString("uid", "10086");
  QXLogFormatSetString("idfa", device.c_str());
  QXLogFormatSetString("phone", "13800000000");
  QXLogFormatSetString("channel", "demo");
  QXLogFormatSetString("softVer", "1.0.0");
  QXLogFormatSetString("devModel", "linux-demo");
  QXLogFormatSetString("logEncryptionKey", settings.key.c_str());
  QXLogFormatSetString("pushUrl", (base + "/settings").c_str());
  QXLogFormatSetString("pushLogUrl", (base + "/log").c_str());
  QXLogFormatSetString("pushDiagnosisUrl", (base + "/diagnosis").c_str());

  const auto started = Clock::now();
  const auto deadline =
      started + std::chrono::milliseconds(static_cast<int64_t>(settings.timeoutSeconds * 1000));
  // The settings answer sets the batch size and starts the push timer; its
  // "current_time" becomes readable once the answer has been applied.
  QXLogCenterGetLogServerInfo();
  logEnvReady(true);
  for (;;) {
    char* serverTime = QXLogFormatCopyString("current_time");
    QXLogFree(serverTime);
    if (serverTime != nullptr) break;
    if (Clock::now() > deadline) {
      std::fprintf(stderr, "qxlog-demo: no settings answer from %s/settings\n", base.c_str());
      return 1;
    }
    serveMainQueueFor(std::chrono::milliseconds(20));
  }

  Expected expected;
  playSession(expected);

  // The push timer (or the batch size) sends the rest; the answers and the
  // timer's submissions run on the main queue, served here.
  const std::string receivedUrl = base + "/received?uid=" + device;
  std::optional<nlohmann::json> received;
  bool complete = false;
  while (!complete && Clock::now() < deadline) {
    serveMainQueueFor(std::chrono::milliseconds(200));
    received = fetchJson(receivedUrl, settings.apiToken);
    complete = received && everythingArrived(*received, expected);
  }
  if (!received) {
    std::fprintf(stderr, "qxlog-demo: %s did not answer\n", receivedUrl.c_str());
    return 1;
  }
  printSummary(*received, expected, device);
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  if (!complete) {
    std::printf("NOT everything arrived within %.1f s\n", settings.timeoutSeconds);
    return 1;
  }
  std::printf("everything arrived in %.1f s\n", seconds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--quiet") {
      settings.quiet = true;
    } else if (arg == "--explain") {
      settings.explain = true;
    } else if (arg == "--trace") {
      settings.trace = true;
    } else if (arg == "--server" && hasValue) {
      settings.server = argv[++i];
    } else if (arg == "--api-token" && hasValue) {
      settings.apiToken = argv[++i];
    } else if (arg == "--key" && hasValue) {
      settings.key = argv[++i];
    } else if (arg == "--db" && hasValue) {
      settings.database = argv[++i];
    } else if (arg == "--timeout" && hasValue) {
      settings.timeoutSeconds = std::atof(argv[++i]);
    } else {
      std::fprintf(stderr, "qxlog-demo: unexpected argument: %s\n%s", argv[i], kUsage);
      return 2;
    }
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const int status = run(settings);
  std::fflush(stdout);
  return status;
}
