// The client behind a trusted proxy, from any "Forwarded" and
// "X-Forwarded-For" values: the first line of the input is the former, the
// rest the latter.
#include <cstdint>
#include <string>

#include "collector/server/ClientAddress.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t line = input.find('\n');
  qxlog::collector::HttpServerRequest request;
  request.peer = "127.0.0.1:4000";
  if (line != std::string::npos) request.headers["x-forwarded-for"] = input.substr(line + 1);
  const std::vector<std::string> proxies = {"127.0.0.1", "::1"};
  (void)qxlog::collector::resolveClientAddress(request, proxies);
  request.headers["forwarded"] = input.substr(0, line);
  (void)qxlog::collector::resolveClientAddress(request, proxies);
  (void)qxlog::collector::peerAddress(input);
  return 0;
}
