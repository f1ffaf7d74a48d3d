// qxlog-collector: a local log server for hosts of the library. It answers the
// settings request, takes uploads and diagnoses, decodes them with the hosts'
// key, stores them in SQLite or PostgreSQL and prints them. Stops cleanly on SIGINT/SIGTERM.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include "collector/server/LocalCollector.h"

namespace {

using qxlog::collector::LocalCollector;
using qxlog::collector::LocalCollectorOptions;
using qxlog::collector::Output;

constexpr const char* kUsage = R"(usage: qxlog-collector [options]

  --listen HOST:PORT           where to listen (default 127.0.0.1:8470; port 0: any free port)
  --key KEY                    the hosts' logEncryptionKey (default: none, 16 zero bytes)
  --db PATH|URI                 the SQLite database (default ./qxlog-collector.db), or a
                               PostgreSQL database: postgresql://... (a libpq URI), which
                               several collectors may share
  --db-wait MS                 longest wait for a busy database before answering 503
                               with Retry-After (default 2000)
  --trusted-proxy ADDR         a proxy (IP address) whose X-Forwarded-For / Forwarded
                               name the client; repeatable
  --push-interval-time MS      push interval sent to hosts, in milliseconds (default 60000)
  --push-interval-number N     batch size sent to hosts (default 20)
  --answer-code CODE           operate_code of upload answers (default 200; any other
                               value makes hosts drop the batch; nothing is stored)
  --answer-status STATUS       HTTP status of upload answers (default 200; outside 2xx
                               hosts send the batch once more; nothing is stored)
  --max-body BYTES             largest request body taken (default 8388608)
  --max-inflated BYTES         largest upload once inflated (default 16777216)
  --max-records N              most records in one upload (default 10000)
  --deadline MS                longest a request may take, start to answer (default 30000)
  --header-deadline MS         longest a client may take to send its request line and
                               headers (default 5000)
  --min-body-rate BYTES        slowest a body may arrive, in bytes a second, after a grace
                               of 2 s (default 1024; 0: no minimum)
  --max-connections N          connections open at once (default 64; a quarter of them is
                               kept for addresses that hold none)
  --max-client-connections N   connections open at once from one address (default 16)
  --api-token TOKEN            what the dashboard, /api/* and /received require, as
                               "Authorization: Bearer TOKEN" or the password of HTTP Basic
                               (default: none; then only loopback addresses may be listened
                               on, and only requests for the collector's own address answered)
  --api-token-file FILE        the same, read from FILE (its first line)
  --tls-cert FILE              serve HTTPS with this certificate chain (PEM)
  --tls-key FILE               and this private key (PEM)
  --quiet                      print nothing of what arrives
  --json                       print what arrives as one JSON object per line
  --explain                    print every key of what arrives with its meaning

Endpoints: GET /settings, POST /log, POST /diagnosis, GET /received[?uid=DEVICE].
)";

int wakeWrite = -1;

void onSignal(int) {
  const int saved = errno;
  const char byte = 1;
  [[maybe_unused]] ssize_t written = ::write(wakeWrite, &byte, 1);
  errno = saved;
}

template <typename Number>
bool parseNumber(std::string_view text, Number& out) {
  auto [last, failure] = std::from_chars(text.data(), text.data() + text.size(), out);
  return failure == std::errc() && last == text.data() + text.size();
}

int usageError(const std::string& message) {
  std::fprintf(stderr, "qxlog-collector: %s\n%s", message.c_str(), kUsage);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  LocalCollectorOptions options;
  options.port = 8470;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    auto value = [&](std::string_view& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    std::string_view text;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--quiet") {
      options.output = Output::kQuiet;
    } else if (arg == "--json") {
      options.output = Output::kJson;
    } else if (arg == "--explain") {
      options.output = Output::kExplained;
    } else if (!value(text)) {
      return usageError("unknown option or missing value: " + std::string(arg));
    } else if (arg == "--listen") {
      if (!qxlog::collector::parseListenAddress(std::string(text), options.host, options.port)) {
        return usageError("--listen takes HOST:PORT");
      }
    } else if (arg == "--api-token") {
      options.apiToken = std::string(text);
      if (options.apiToken.empty()) return usageError("--api-token takes a non-empty token");
    } else if (arg == "--api-token-file") {
      std::ifstream file{std::string(text)};
      if (!file || !std::getline(file, options.apiToken)) {
        return usageError("cannot read the API token from " + std::string(text));
      }
      while (!options.apiToken.empty() &&
             std::isspace(static_cast<unsigned char>(options.apiToken.back()))) {
        options.apiToken.pop_back();
      }
      if (options.apiToken.empty()) return usageError(std::string(text) + " holds no API token");
    } else if (arg == "--tls-cert") {
      options.tlsCertificateFile = std::string(text);
    } else if (arg == "--tls-key") {
      options.tlsKeyFile = std::string(text);
    } else if (arg == "--key") {
      options.collector.key = std::string(text);
    } else if (arg == "--db") {
      options.database = std::string(text);
    } else if (arg == "--db-wait") {
      int64_t millis = 0;
      if (!parseNumber(text, millis) || millis <= 0) return usageError("--db-wait takes ms");
      options.store.wait = std::chrono::milliseconds(millis);
    } else if (arg == "--trusted-proxy") {
      options.collector.trustedProxies.emplace_back(text);
    } else if (arg == "--push-interval-time") {
      if (!parseNumber(text, options.collector.pushIntervalTime)) {
        return usageError("--push-interval-time takes milliseconds");
      }
    } else if (arg == "--push-interval-number") {
      if (!parseNumber(text, options.collector.pushIntervalNumber)) {
        return usageError("--push-interval-number takes a count");
      }
    } else if (arg == "--answer-code") {
      options.collector.answerCode = std::string(text);
    } else if (arg == "--answer-status") {
      if (!parseNumber(text, options.collector.answerStatus) ||
          options.collector.answerStatus < 100 || options.collector.answerStatus > 599) {
        return usageError("--answer-status takes an HTTP status");
      }
    } else if (arg == "--max-body") {
      if (!parseNumber(text, options.maxBodyBytes)) return usageError("--max-body takes bytes");
    } else if (arg == "--max-inflated") {
      if (!parseNumber(text, options.collector.maxInflatedBytes)) {
        return usageError("--max-inflated takes bytes");
      }
    } else if (arg == "--deadline") {
      int64_t millis = 0;
      if (!parseNumber(text, millis) || millis <= 0) return usageError("--deadline takes ms");
      options.requestDeadline = std::chrono::milliseconds(millis);
    } else if (arg == "--header-deadline") {
      int64_t millis = 0;
      if (!parseNumber(text, millis) || millis <= 0) {
        return usageError("--header-deadline takes ms");
      }
      options.headerDeadline = std::chrono::milliseconds(millis);
    } else if (arg == "--min-body-rate") {
      if (!parseNumber(text, options.minBodyBytesPerSecond)) {
        return usageError("--min-body-rate takes bytes a second");
      }
    } else if (arg == "--max-connections") {
      if (!parseNumber(text, options.maxConnections)) {
        return usageError("--max-connections takes a count");
      }
    } else if (arg == "--max-client-connections") {
      if (!parseNumber(text, options.maxConnectionsPerClient)) {
        return usageError("--max-client-connections takes a count");
      }
    } else if (arg == "--max-records") {
      if (!parseNumber(text, options.collector.maxRecordsPerUpload)) {
        return usageError("--max-records takes a count");
      }
    } else {
      return usageError("unknown option: " + std::string(arg));
    }
  }

  // Signals only write a byte to this pipe; the main thread waits on it.
  int wake[2];
  if (::pipe2(wake, O_CLOEXEC) != 0) {
    std::perror("qxlog-collector: pipe");
    return 1;
  }
  wakeWrite = wake[1];
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  std::string error;
  auto collector = LocalCollector::start(options, error);
  if (!collector) {
    std::fprintf(stderr, "qxlog-collector: %s\n", error.c_str());
    return 1;
  }
  const std::string base = collector->baseUrl();
  std::fprintf(stderr,
               "qxlog-collector: listening on %s, database %s\n"
               "qxlog-collector: pushUrl %s/settings  pushLogUrl %s/log  pushDiagnosisUrl "
               "%s/diagnosis\n",
               base.c_str(), options.database.c_str(), base.c_str(), base.c_str(), base.c_str());
  std::fflush(stderr);

  for (;;) {
    pollfd ready{wake[0], POLLIN, 0};
    if (::poll(&ready, 1, -1) > 0) break;
    if (errno != EINTR) break;
  }
  collector->stop();
  std::fprintf(stderr, "qxlog-collector: stopped\n");
  return 0;
}
