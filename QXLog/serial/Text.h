// Text conversions of the platform's string and number objects, always in the
// C locale whatever locale the host has set.
#ifndef QXLOG_SERIAL_TEXT_H_
#define QXLOG_SERIAL_TEXT_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"

namespace qxlog::serial {

// The leading decimal integer of a text: leading whitespace skipped, an
// optional sign, digits up to the first other character; 0 without digits.
// Out-of-range values saturate.
int64_t longLongValue(std::string_view text);
int64_t longLongValue(const NullableString& text);
inline int64_t longLongValue(const std::string& text) {
  return longLongValue(std::string_view(text));
}
int32_t intValue(std::string_view text);
int32_t intValue(const NullableString& text);
inline int32_t intValue(const std::string& text) {
  return intValue(std::string_view(text));
}
inline int64_t longLongValue(const char* text) {
  return longLongValue(std::string_view(text));
}
inline int32_t intValue(const char* text) {
  return intValue(std::string_view(text));
}
// The leading decimal number of a text (digits, point, exponent), 0 without one.
double doubleValue(std::string_view text);

// Truncation toward zero, saturating where the double does not fit; NaN is 0.
int64_t truncateToInt64(double value);

// The integer value of any value: strings as above, numbers truncated toward
// zero and saturated, booleans 0 or 1, anything else 0.
int64_t integerValue(const Value& value);

// "%lld", "%llu", "%d".
std::string formatInteger(int64_t value);
std::string formatUnsigned(uint64_t value);
// "%g": six significant digits.
std::string formatGeneral(double value);
// "%.Nf"; infinities and NaNs are written "inf", "-inf" and "nan".
std::string formatFixed(double value, int decimals);

// The text with every byte that does not begin a well-formed UTF-8 sequence
// replaced by U+FFFD.
std::string validUtf8(std::string_view text);

// The text "%@" makes of a value: a string is itself, nil is "(null)", any other
// value its compact JSON.
std::string describe(const Value& value);
std::string describe(const NullableString& value);

}  // namespace qxlog::serial

#endif  // QXLOG_SERIAL_TEXT_H_
