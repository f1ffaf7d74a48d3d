// Percent-encoding of URLs for records.
#ifndef QXLOG_SUPPORT_URLENCODING_H_
#define QXLOG_SUPPORT_URLENCODING_H_

#include <string>
#include <string_view>

namespace qxlog {

// The text with every byte outside the characters allowed in a URL query
// (letters, digits, - . _ ~ ! $ & ' ( ) * + , ; = : / ? @) written as %XX,
// upper-case hex. Multi-byte UTF-8 characters are encoded byte by byte.
std::string percentEncodeQuery(std::string_view text);

}  // namespace qxlog

#endif  // QXLOG_SUPPORT_URLENCODING_H_
