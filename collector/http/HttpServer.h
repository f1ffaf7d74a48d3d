// The HTTP/1.1 front of the collector and of the tests' log server, on
// libmicrohttpd: a pool of threads, connection limits, timeouts.
//
// libmicrohttpd hands a request's body over as it came: the log client
// announces "Content-Encoding: gzip" on bodies it sends uncompressed
// (diagnoses and repeated uploads), which servers that inflate such bodies
// refuse.
//
// One request per connection (answers carry "Connection: close"). Beyond
// the limits below a request is answered 413 or 503 at once, and told to
// `refused`; a connection over a connection limit that does not finish its
// request within a second is closed, and so is any connection that takes
// longer than the request deadline from its start to its answer, whether it
// trickles or stalls, that has not sent its request line and headers within
// the header deadline, or whose body arrives slower than the minimum rate.
//
// Slots are kept for new clients: a quarter of the connection limit is taken
// only by addresses that hold no connection yet, so that a few addresses
// that each fill their own limit cannot fill the server; and far beyond its
// own limit an address's connections are closed as they are accepted.
#ifndef QXLOG_COLLECTOR_HTTP_HTTPSERVER_H_
#define QXLOG_COLLECTOR_HTTP_HTTPSERVER_H_

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "collector/http/FormFields.h"

namespace qxlog::collector {

struct HttpServerRequest {
  std::string method;
  std::string target;  // path and query, as sent
  std::string path;
  std::string query;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
  std::string peer;  // the client's address, "a.b.c.d:port"
  // Query and form fields ("+" and percent escapes decoded), in order.
  std::multimap<std::string, std::string> params;

  std::string header(const std::string& lowerCaseName) const;
};

struct HttpServerAnswer {
  HttpServerAnswer(int code = 200, std::string type = "application/json", std::string text = {})
      : status(code), contentType(std::move(type)), body(std::move(text)) {}

  int status = 200;
  std::string contentType = "application/json";
  std::string body;
  // Further headers of the answer, such as "Retry-After".
  std::vector<std::pair<std::string, std::string>> headers;
};

class HttpServer {
 public:
  using Handler = std::function<HttpServerAnswer(const HttpServerRequest&)>;
  // The threads that call the handler.
  static constexpr unsigned kThreads = 4;

  struct Options {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: any free port
    std::size_t maxBodyBytes = 16 << 20;
    // From a connection's start to its answer, however the bytes trickle.
    std::chrono::milliseconds requestDeadline{30000};
    // Connections open at once, in all and from one client address.
    std::size_t maxConnections = 64;
    std::size_t maxConnectionsPerClient = 16;
    // From a connection's start to the end of its headers.
    std::chrono::milliseconds headerDeadline{5000};
    // After the headers, the body must arrive at this rate on average, once
    // the grace has passed (0: no minimum).
    std::size_t minBodyBytesPerSecond = 1024;
    std::chrono::milliseconds bodyGrace{2000};
    // HTTPS: the certificate chain and its private key, PEM. Empty: HTTP.
    std::string tlsCertificatePem;
    std::string tlsKeyPem;
    // Told about each request that the server refuses itself (oversized, over
    // a limit), with the status and the one-line reason.
    std::function<void(const HttpServerRequest&, int status, const std::string& reason)> refused;
  };

  HttpServer(Options options, Handler handler);
  ~HttpServer();  // stops
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // False when the address could not be bound; error() says why.
  bool start();
  void stop();
  int port() const { return port_; }
  const std::string& error() const { return error_; }
  // The connections accepted and not yet closed, within the limits or not.
  std::size_t openConnections() const;

  struct State;  // what libmicrohttpd's callbacks share

 private:
  Options options_;
  Handler handler_;
  int port_ = 0;
  std::string error_;
  std::unique_ptr<State> state_;
};

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_HTTP_HTTPSERVER_H_
