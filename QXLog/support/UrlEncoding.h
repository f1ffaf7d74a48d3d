// Percent-encoding of URLs for records.
#ifndef QXLOG_SUPPORT_URLENCODING_H_
#define QXLOG_SUPPORT_URLENCODING_H_

#include <string>
#include <string_view>

#include "QXLog/serial/PercentEncoding.h"

namespace qxlog::support {

// The text with every byte outside the characters allowed in a URL query
// (letters, digits, - . _ ~ ! $ & ' ( ) * + , ; = : / ? @) written as %XX,
// upper-case hex. Multi-byte UTF-8 characters are encoded byte by byte.
inline std::string percentEncodeQuery(std::string_view text) {
  return serial::percentEncode(text, serial::kQueryPunctuation);
}

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_URLENCODING_H_
