#include "collector/http/FormFields.h"

#include <cctype>
#include <string>

#include "collector/http/HttpServer.h"

namespace qxlog::collector {

std::string HttpServerRequest::header(const std::string& lowerCaseName) const {
  auto it = headers.find(lowerCaseName);
  return it != headers.end() ? it->second : std::string();
}

std::string percentDecode(const std::string& text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+' && plusIsSpace) {
      out += ' ';
    } else if (c == '%' && i + 2 < text.size() &&
               std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
               std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

void parseFormFields(const std::string& text, std::multimap<std::string, std::string>& fields) {
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('&', start);
    if (end == std::string::npos) end = text.size();
    std::string pair = text.substr(start, end - start);
    if (!pair.empty()) {
      std::size_t equals = pair.find('=');
      std::string key = pair.substr(0, equals);
      std::string value = equals == std::string::npos ? "" : pair.substr(equals + 1);
      fields.emplace(percentDecode(key, true), percentDecode(value, true));
    }
    start = end + 1;
  }
}

}  // namespace qxlog::collector
