// A small HTTP/1.1 server on raw sockets for the collector and the tests.
//
// Why not a general-purpose server library: the log client announces
// "Content-Encoding: gzip" on bodies it sends uncompressed (diagnosis and
// repeated uploads), and the libraries at hand insist on inflating such
// bodies and refuse the request. This server hands the body over as it came.
//
// One request per connection (answers carry "Connection: close"); each
// connection is served on its own thread, up to a bounded number at once.
// stop() wakes idle connections within a few tens of milliseconds.
#ifndef QXLOG_COLLECTOR_HTTP_HTTPSERVER_H_
#define QXLOG_COLLECTOR_HTTP_HTTPSERVER_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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
  int status = 200;
  std::string contentType = "application/json";
  std::string body;
};

class HttpServer {
 public:
  using Handler = std::function<HttpServerAnswer(const HttpServerRequest&)>;

  struct Options {
    std::string host = "127.0.0.1";
    int port = 0;  // 0: any free port
    std::size_t maxBodyBytes = 16 << 20;
    std::chrono::milliseconds readTimeout{10000};
    // Connections served at once; further ones are answered 503 at once.
    std::size_t maxConnections = 64;
    // Told about each request that the server refuses itself (malformed,
    // oversized, incomplete), with the status and the one-line reason.
    std::function<void(const HttpServerRequest&, int status, const std::string& reason)> refused;
  };

  HttpServer(Options options, Handler handler);
  ~HttpServer();  // stops and joins every thread
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // False when the address could not be bound; error() says why.
  bool start();
  void stop();
  int port() const { return port_; }
  const std::string& error() const { return error_; }

 private:
  struct Connection {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  void acceptLoop();
  void reapFinishedLocked();
  void serve(int connection, std::string peer);
  bool readMore(int fd, std::string& buffer) const;
  void refuse(int fd, const HttpServerRequest& request, int status, const std::string& reason);

  Options options_;
  Handler handler_;
  int listener_ = -1;
  int port_ = 0;
  std::string error_;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;
  std::mutex connectionsMutex_;
  std::vector<Connection> connections_;
};

// Decodes "a=1&b=x+y%21" into fields.
void parseFormFields(const std::string& text, std::multimap<std::string, std::string>& fields);
std::string percentDecode(const std::string& text, bool plusIsSpace);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_HTTP_HTTPSERVER_H_
