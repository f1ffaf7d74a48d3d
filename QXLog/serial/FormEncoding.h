// The body of a form POST (application/x-www-form-urlencoded), encoded the way
// the networking library's request serialiser does.
#ifndef QXLOG_SERIAL_FORMENCODING_H_
#define QXLOG_SERIAL_FORMENCODING_H_

#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"
#include "QXLog/serial/PercentEncoding.h"

namespace qxlog::serial {

// Pairs sorted by key and joined with "&". Strings are percent-escaped so that
// base64's "+" and "=" survive; nested dictionaries become "key[sub]=...",
// arrays "key[]=...", other values their JSON text.
std::string formEncode(const Dictionary& parameters);
// Percent-escapes everything outside the unreserved characters and "/" and "?".
inline std::string percentEscapeFormComponent(std::string_view text) {
  return percentEncode(text, kFormPunctuation);
}

}  // namespace qxlog::serial

#endif  // QXLOG_SERIAL_FORMENCODING_H_
