// A blocking HTTP exchange over libcurl: the stand-in for the platform's URL
// session. Callers run it on the global queue.
#ifndef QXLOG_PLATFORM_HTTP_H_
#define QXLOG_PLATFORM_HTTP_H_

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace qxlog::platform {

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::chrono::seconds timeout{60};
  // Whether the server's certificate and host name are checked.
  bool verifyPeer = true;
};

struct HttpResponse {
  // False when no answer arrived: bad URL, refused or dropped connection,
  // timeout, or an answer larger than kMaxAnswerBytes.
  bool completed = false;
  std::string error;
  long status = 0;
  std::string contentType;
  std::string body;
};

// Answers are read up to this size; a larger one fails the exchange, so that a
// hostile server cannot make the host's memory grow.
inline constexpr std::size_t kMaxAnswerBytes = 1 << 20;

HttpResponse performHttp(const HttpRequest& request);

// Replaces every request's time limit by `limit`, so that tests can meet a
// stalled server without waiting for the real limits; zero restores them.
void setHttpTimeoutOverride(std::chrono::milliseconds limit);

// Answers every request with `transport` instead of the network, so that
// fuzzing can feed answers straight to the library; empty restores libcurl.
using HttpTransport = std::function<HttpResponse(const HttpRequest&)>;
void setHttpTransportOverride(HttpTransport transport);

// Whether the text has the shape of an absolute http(s) URL with a host and
// no characters a URL cannot hold.
bool isValidHttpUrl(const std::string& url);

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_HTTP_H_
