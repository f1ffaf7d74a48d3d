#include "QXLog/platform/HttpUrl.h"

#include <string_view>

namespace qxlog::platform {

bool isValidHttpUrl(const std::string& url) {
  std::string_view rest(url);
  if (rest.rfind("http://", 0) == 0) {
    rest.remove_prefix(7);
  } else if (rest.rfind("https://", 0) == 0) {
    rest.remove_prefix(8);
  } else {
    return false;
  }
  if (rest.empty() || rest.front() == '/' || rest.front() == '?' || rest.front() == '#') {
    return false;
  }
  for (unsigned char c : url) {
    if (c <= 0x20 || c >= 0x7f || c == '"' || c == '<' || c == '>' || c == '\\' || c == '^' ||
        c == '`' || c == '{' || c == '|' || c == '}') {
      return false;
    }
  }
  return true;
}

}  // namespace qxlog::platform
