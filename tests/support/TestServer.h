// An HTTP server on 127.0.0.1 that records every request and answers as the
// test scripts it.
#ifndef QXLOG_TESTS_SUPPORT_TESTSERVER_H_
#define QXLOG_TESTS_SUPPORT_TESTSERVER_H_

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qxlog::collector {
class HttpServer;
}

namespace qxlog::testing {

struct ReceivedRequest {
  std::string method;
  std::string path;
  std::string query;                               // the raw query string
  std::map<std::string, std::string> headers;      // names in lower case
  std::multimap<std::string, std::string> params;  // query and form fields, decoded

  std::string param(const std::string& name) const;
  std::string header(const std::string& name) const;  // name in lower case
  // "log_data" and "token": what a repeat of a sealed batch sends again.
  std::pair<std::string, std::string> batch() const { return {param("log_data"), param("token")}; }
};

struct ScriptedAnswer {
  int status = 200;
  std::string contentType = "application/json";
  std::string body = R"({"operate_code":"200"})";
  // Further headers, such as "Retry-After".
  std::vector<std::pair<std::string, std::string>> headers = {};

  static ScriptedAnswer json(std::string body) {
    return ScriptedAnswer{200, "application/json", std::move(body)};
  }
};

class TestServer {
 public:
  TestServer();
  ~TestServer();

  std::string url(const std::string& path) const;
  // Answers for the next requests, in order; afterwards `fallback` answers.
  void script(ScriptedAnswer answer);
  void setFallback(ScriptedAnswer answer);
  // Answers each request for which it returns an answer, before the script.
  void setResponder(std::function<std::optional<ScriptedAnswer>(const ReceivedRequest&)> responder);
  std::vector<ReceivedRequest> requests() const;
  std::size_t requestCount() const;

 private:
  std::unique_ptr<collector::HttpServer> server_;
  mutable std::mutex mutex_;
  std::deque<ScriptedAnswer> script_;
  ScriptedAnswer fallback_;
  std::function<std::optional<ScriptedAnswer>(const ReceivedRequest&)> responder_;
  std::vector<ReceivedRequest> requests_;
};

// A URL on 127.0.0.1 whose port refuses connections.
std::string refusedUrl(const std::string& path);

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_SUPPORT_TESTSERVER_H_
