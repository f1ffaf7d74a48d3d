// Percent-encoding with a choice of the punctuation kept as it is: the one
// encoder behind the URLs in records and the bodies of form POSTs.
#ifndef QXLOG_SERIAL_PERCENTENCODING_H_
#define QXLOG_SERIAL_PERCENTENCODING_H_

#include <string>
#include <string_view>

namespace qxlog::serial {

// What a URL query may hold besides letters and digits.
inline constexpr std::string_view kQueryPunctuation = "-._~!$&'()*+,;=:/?@";
// What a form component keeps: the unreserved characters, "/" and "?".
inline constexpr std::string_view kFormPunctuation = "-._~/?";

// The text with every byte other than ASCII letters, digits and `kept`
// written as %XX, upper-case hex; multi-byte UTF-8 is encoded byte by byte.
std::string percentEncode(std::string_view text, std::string_view kept);

}  // namespace qxlog::serial

#endif  // QXLOG_SERIAL_PERCENTENCODING_H_
