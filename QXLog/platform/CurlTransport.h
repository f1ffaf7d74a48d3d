// HTTP over libcurl: the stand-in for the platform's URL session.
#ifndef QXLOG_PLATFORM_CURLTRANSPORT_H_
#define QXLOG_PLATFORM_CURLTRANSPORT_H_

#include <chrono>

#include "QXLog/platform/HttpTransport.h"

namespace qxlog::platform {

class CurlTransport final : public HttpTransport {
 public:
  // A positive `timeLimit` replaces every request's own, so that tests can
  // meet a stalled server without waiting for the real limits.
  explicit CurlTransport(std::chrono::milliseconds timeLimit = std::chrono::milliseconds(0))
      : timeLimit_(timeLimit) {}
  HttpResponse perform(const HttpRequest& request) override;

 private:
  const std::chrono::milliseconds timeLimit_;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_CURLTRANSPORT_H_
