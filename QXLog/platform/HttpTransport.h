// HTTP as one part of the library's environment (Env): a blocking exchange,
// run on the global queue. CurlTransport is the system's; fuzzing and tests
// put in others.
#ifndef QXLOG_PLATFORM_HTTPTRANSPORT_H_
#define QXLOG_PLATFORM_HTTPTRANSPORT_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
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
  // The answer's "Retry-After", in seconds (a date is counted from now); -1
  // when it has none.
  int64_t retryAfterSeconds = -1;
};

// Answers are read up to this size; a larger one fails the exchange, so that a
// hostile server cannot make the host's memory grow.
inline constexpr std::size_t kMaxAnswerBytes = 1 << 20;

class HttpTransport {
 public:
  virtual ~HttpTransport() = default;
  // Called with valid http(s) URLs only.
  virtual HttpResponse perform(const HttpRequest& request) = 0;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_HTTPTRANSPORT_H_
