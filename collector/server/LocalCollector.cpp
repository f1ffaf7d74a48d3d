#include "collector/server/LocalCollector.h"

#include <charconv>
#include <fstream>
#include <sstream>

#include "collector/print/Report.h"

namespace qxlog::collector {

bool parseListenAddress(const std::string& text, std::string& host, int& port) {
  const std::size_t colon = text.rfind(':');
  const std::string portText = colon == std::string::npos ? text : text.substr(colon + 1);
  if (colon != std::string::npos && colon > 0) host = text.substr(0, colon);
  int parsed = -1;
  const char* end = portText.data() + portText.size();
  auto [last, failure] = std::from_chars(portText.data(), end, parsed);
  if (failure != std::errc() || last != end || parsed < 0 || parsed > 65535) return false;
  port = parsed;
  return true;
}

std::unique_ptr<LocalCollector> LocalCollector::start(LocalCollectorOptions options,
                                                      std::string& error) {
  if (options.apiToken.empty() && !isLoopbackHost(options.host)) {
    error = "refusing to listen on " + options.host +
            " without an API token: the dashboard, /api/* and /received show user ids, phone "
            "numbers and device ids to anyone who reaches them. Pass --api-token TOKEN or "
            "--api-token-file FILE, or listen on 127.0.0.1";
    return nullptr;
  }
  if (options.tlsCertificateFile.empty() != options.tlsKeyFile.empty()) {
    error = "HTTPS takes both a certificate (--tls-cert) and its key (--tls-key)";
    return nullptr;
  }
  std::unique_ptr<LocalCollector> running(new LocalCollector(std::move(options)));
  LocalCollector* self = running.get();
  // One store connection for each thread that serves requests.
  self->options_.store.connections = HttpServer::kThreads;
  self->store_ = CollectorStore::open(self->options_.database, self->options_.store, error);
  if (!self->store_) return nullptr;

  CollectorEvents events;
  const Output output = self->options_.output;
  if (output != Output::kQuiet) {
    events.upload = [self, output](int64_t id, const UploadRow& upload) {
      self->print(output == Output::kJson
                      ? uploadJsonLine(id, upload) + "\n"
                      : describeUpload(id, upload, output == Output::kExplained));
    };
    events.diagnosis = [self, output](int64_t id, const DiagnosisRow& diagnosis) {
      self->print(output == Output::kJson
                      ? diagnosisJsonLine(id, diagnosis) + "\n"
                      : describeDiagnosis(id, diagnosis, output == Output::kExplained));
    };
    events.settings = [self](const HttpServerRequest& request, const std::string& uid) {
      self->logLine("settings for uid=" + uid + " from " + request.peer);
    };
  }
  auto refusal = [self](const HttpServerRequest& request, int status, const std::string& reason) {
    self->logLine(std::to_string(status) + " " + request.method + " " + request.path + " from " +
                  request.peer + ": " + reason);
  };
  events.refusal = refusal;
  events.replay = [self](const HttpServerRequest& request, int64_t first) {
    self->logLine("replay of upload #" + std::to_string(first) + " from " + request.peer +
                  ": answered, not stored again");
  };
  self->collector_ =
      std::make_unique<Collector>(self->options_.collector, *self->store_, std::move(events));

  HttpServer::Options serverOptions;
  serverOptions.host = self->options_.host;
  serverOptions.port = self->options_.port;
  serverOptions.maxBodyBytes = self->options_.maxBodyBytes;
  serverOptions.requestDeadline = self->options_.requestDeadline;
  serverOptions.maxConnections = self->options_.maxConnections;
  serverOptions.maxConnectionsPerClient = self->options_.maxConnectionsPerClient;
  serverOptions.headerDeadline = self->options_.headerDeadline;
  serverOptions.minBodyBytesPerSecond = self->options_.minBodyBytesPerSecond;
  serverOptions.refused = refusal;
  for (auto [path, pem] :
       {std::pair{&self->options_.tlsCertificateFile, &serverOptions.tlsCertificatePem},
        std::pair{&self->options_.tlsKeyFile, &serverOptions.tlsKeyPem}}) {
    if (path->empty()) continue;
    std::ifstream file(*path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf())) {
      error = "cannot read " + *path;
      return nullptr;
    }
    *pem = text.str();
  }
  self->access_ = std::make_unique<AccessControl>(self->options_.apiToken, self->options_.host,
                                                  self->options_.port);
  self->server_ = std::make_unique<HttpServer>(
      serverOptions, [self, refusal](const HttpServerRequest& request) {
        if (std::optional<HttpServerAnswer> denied = self->access_->check(request)) {
          std::string reason = denied->body.substr(0, denied->body.find('\n'));
          refusal(request, denied->status, reason);
          return *denied;
        }
        HttpServerAnswer answer = self->collector_->handle(request);
        if (std::optional<std::string> cookie = self->access_->sessionCookie(request)) {
          answer.headers.emplace_back("Set-Cookie", *cookie);
        }
        return answer;
      });
  if (!self->server_->start()) {
    error = self->options_.host + ":" + std::to_string(self->options_.port) + ": " +
            self->server_->error();
    return nullptr;
  }
  self->access_->setPort(self->server_->port());
  return running;
}

LocalCollector::~LocalCollector() {
  stop();
}

void LocalCollector::stop() {
  if (server_) server_->stop();
}

std::string LocalCollector::baseUrl() const {
  return (options_.tlsCertificateFile.empty() ? "http://" : "https://") + options_.host + ":" +
         std::to_string(port());
}

void LocalCollector::logLine(const std::string& line) {
  std::lock_guard lock(outputMutex_);
  std::fprintf(options_.log, "%s: %s\n", options_.name.c_str(), printable(line).c_str());
  std::fflush(options_.log);
}

void LocalCollector::print(const std::string& text) {
  std::lock_guard lock(outputMutex_);
  std::fputs(text.c_str(), options_.out);
  std::fflush(options_.out);
}

}  // namespace qxlog::collector
