#include "QXLog/serial/PercentEncoding.h"

namespace qxlog::serial {

std::string percentEncode(std::string_view text, std::string_view kept) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(text.size() + text.size() / 8);
  for (unsigned char c : text) {
    bool alphanumeric = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (alphanumeric || (c != 0 && kept.find(static_cast<char>(c)) != std::string_view::npos)) {
      encoded += static_cast<char>(c);
    } else {
      encoded += '%';
      encoded += kHex[c >> 4];
      encoded += kHex[c & 0x0F];
    }
  }
  return encoded;
}

}  // namespace qxlog::serial
