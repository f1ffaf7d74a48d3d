// A running collector: the database, the request handler and the HTTP server
// together, printing what arrives. qxlog-collector runs one; qxlog-demo embeds
// one unless it is pointed at another server.
#ifndef QXLOG_COLLECTOR_SERVER_LOCALCOLLECTOR_H_
#define QXLOG_COLLECTOR_SERVER_LOCALCOLLECTOR_H_

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "collector/http/HttpServer.h"
#include "collector/server/AccessControl.h"
#include "collector/server/Collector.h"
#include "collector/store/CollectorStore.h"

namespace qxlog::collector {

// kExplained is kReadable with every key's meaning under each record.
enum class Output { kReadable, kExplained, kJson, kQuiet };

struct LocalCollectorOptions {
  std::string host = "127.0.0.1";
  int port = 0;                                 // 0: a free port
  std::string database = "qxlog-collector.db";  // a file, or a postgresql:// URI
  StoreOptions store;
  std::size_t maxBodyBytes = 8 << 20;
  // From a connection's start to its answer; connections at once, in all and
  // from one client address. Beyond them: closed, or answered 503.
  std::chrono::milliseconds requestDeadline{30000};
  std::size_t maxConnections = 64;
  std::size_t maxConnectionsPerClient = 16;
  // The request line and headers must arrive within the header deadline, the
  // body at the minimum rate.
  std::chrono::milliseconds headerDeadline{5000};
  std::size_t minBodyBytesPerSecond = 1024;
  CollectorOptions collector;
  // What the dashboard, /api/* and /received require, as a Bearer token or
  // the password of HTTP Basic. Empty: none, and then the collector listens
  // on loopback only and checks each request's Host.
  std::string apiToken;
  // HTTPS with this certificate chain and private key (PEM files); both or
  // neither.
  std::string tlsCertificateFile;
  std::string tlsKeyFile;
  // What arrives goes to `out`, readable or as JSON lines, unless quiet.
  // Refusals and settings requests are logged to `log` (refusals always).
  Output output = Output::kReadable;
  std::FILE* out = stdout;
  std::FILE* log = stderr;
  std::string name = "qxlog-collector";  // the prefix of log lines
};

class LocalCollector {
 public:
  // Opens the database and starts serving; nothing on failure, with the
  // reason in `error`.
  static std::unique_ptr<LocalCollector> start(LocalCollectorOptions options, std::string& error);
  ~LocalCollector();  // stops serving

  void stop();
  int port() const { return server_->port(); }
  // "http://host:port" (or https), without a trailing slash.
  std::string baseUrl() const;
  Collector& collector() { return *collector_; }
  CollectorStore& store() { return *store_; }

 private:
  explicit LocalCollector(LocalCollectorOptions options) : options_(std::move(options)) {}
  void logLine(const std::string& line);
  void print(const std::string& text);

  LocalCollectorOptions options_;
  std::mutex outputMutex_;
  std::unique_ptr<CollectorStore> store_;
  std::unique_ptr<Collector> collector_;
  std::unique_ptr<HttpServer> server_;
  std::unique_ptr<AccessControl> access_;
};

// Splits "host:port" (or ":port", or "port"); false when it is not one.
bool parseListenAddress(const std::string& text, std::string& host, int& port);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_SERVER_LOCALCOLLECTOR_H_
