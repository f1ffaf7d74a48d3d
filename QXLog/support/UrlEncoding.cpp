#include "QXLog/support/UrlEncoding.h"

namespace qxlog {

namespace {

bool allowedInQuery(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '-':
    case '.':
    case '_':
    case '~':
    case '!':
    case '$':
    case '&':
    case '\'':
    case '(':
    case ')':
    case '*':
    case '+':
    case ',':
    case ';':
    case '=':
    case ':':
    case '/':
    case '?':
    case '@':
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string percentEncodeQuery(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(text.size());
  for (char ch : text) {
    auto byte = static_cast<unsigned char>(ch);
    if (allowedInQuery(byte)) {
      encoded.push_back(ch);
    } else {
      encoded.push_back('%');
      encoded.push_back(kHex[byte >> 4]);
      encoded.push_back(kHex[byte & 0x0F]);
    }
  }
  return encoded;
}

}  // namespace qxlog
