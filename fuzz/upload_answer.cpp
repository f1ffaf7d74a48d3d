// Any bytes as the log server's answer to an upload: the status, the content
// type and the body all come from the input.
#include <cstdint>
#include <string>

#include "QXLog/center/Upload.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qxlog::platform::HttpResponse response;
  response.completed = true;
  std::string input(reinterpret_cast<const char*>(data), size);
  if (size >= 2) {
    // First byte: the status; then a content type up to the first newline.
    response.status = 150 + data[0];
    std::size_t newline = input.find('\n', 1);
    if (newline == std::string::npos) newline = input.size();
    response.contentType = input.substr(1, newline - 1);
    response.body = input.substr(std::min(newline + 1, input.size()));
  } else {
    response.status = 200;
    response.contentType = "application/json";
    response.body = input;
  }
  if (std::optional<qxlog::Value> answer = qxlog::center::acceptedAnswer(response)) {
    (void)qxlog::center::confirmsBatch(*answer);
  }
  return 0;
}
