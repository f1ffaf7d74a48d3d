#include "QXLog/serial/Text.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "QXLog/serial/Json.h"

namespace qxlog::serial {
namespace {

bool isSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Saturating parse of the leading integer between `lowest` and `highest`.
int64_t leadingInteger(std::string_view text, int64_t lowest, int64_t highest) {
  std::size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  // Accumulate negatively so that the lowest value is representable.
  int64_t value = 0;
  for (; i < text.size() && isDigit(text[i]); ++i) {
    int digit = text[i] - '0';
    if (value < (lowest + digit) / 10) return negative ? lowest : highest;
    value = value * 10 - digit;
  }
  if (negative) return value;
  return value < -highest ? highest : -value;
}

}  // namespace

int64_t longLongValue(std::string_view text) {
  return leadingInteger(text, std::numeric_limits<int64_t>::min(),
                        std::numeric_limits<int64_t>::max());
}

int64_t longLongValue(const NullableString& text) {
  return text ? longLongValue(*text) : 0;
}

int32_t intValue(std::string_view text) {
  return static_cast<int32_t>(leadingInteger(text, std::numeric_limits<int32_t>::min(),
                                             std::numeric_limits<int32_t>::max()));
}

int32_t intValue(const NullableString& text) {
  return text ? intValue(*text) : 0;
}

double doubleValue(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  if (i < text.size() && text[i] == '+') ++i;
  double value = 0.0;
  auto result = std::from_chars(text.data() + i, text.data() + text.size(), value,
                                std::chars_format::general);
  if (result.ec == std::errc::result_out_of_range) {
    return (i < text.size() && text[i] == '-') ? -HUGE_VAL : HUGE_VAL;
  }
  return result.ec == std::errc() ? value : 0.0;
}

int64_t truncateToInt64(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
  if (value <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

int64_t integerValue(const Value& value) {
  switch (value.type()) {
    case Value::Type::kString:
      return longLongValue(*value.asString());
    case Value::Type::kInteger:
      return *value.asInteger();
    case Value::Type::kReal:
      return truncateToInt64(*value.asReal());
    case Value::Type::kBool:
      return *value.asBool() ? 1 : 0;
    default:
      return 0;
  }
}

std::string formatInteger(int64_t value) {
  return std::to_string(value);
}
std::string formatUnsigned(uint64_t value) {
  return std::to_string(value);
}

std::string formatGeneral(double value) {
  if (!std::isfinite(value)) return formatFixed(value, 0);
  char text[64];
  auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::general, 6);
  return std::string(text, result.ptr);
}

std::string formatFixed(double value, int decimals) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  char text[512];
  auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals);
  return std::string(text, result.ptr);
}

namespace {

// Length of the well-formed UTF-8 sequence at the start of `text`, or 0.
std::size_t sequenceLength(std::string_view text) {
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  auto within = [&](std::size_t i, unsigned lo, unsigned hi) {
    return i < text.size() && byte(i) >= lo && byte(i) <= hi;
  };
  unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return within(1, 0x80, 0xBF) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    unsigned lo = lead == 0xE0 ? 0xA0 : 0x80;
    unsigned hi = lead == 0xED ? 0x9F : 0xBF;
    return within(1, lo, hi) && within(2, 0x80, 0xBF) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    unsigned lo = lead == 0xF0 ? 0x90 : 0x80;
    unsigned hi = lead == 0xF4 ? 0x8F : 0xBF;
    return within(1, lo, hi) && within(2, 0x80, 0xBF) && within(3, 0x80, 0xBF) ? 4 : 0;
  }
  return 0;
}

}  // namespace

std::string validUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    std::size_t length = sequenceLength(text);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      length = 1;
    } else {
      out.append(text.data(), length);
    }
    text.remove_prefix(length);
  }
  return out;
}

std::string describe(const Value& value) {
  if (value.isNull()) return "(null)";
  if (const std::string* text = value.asString()) return *text;
  return toJson(value);
}

std::string describe(const NullableString& value) {
  return value ? *value : "(null)";
}

}  // namespace qxlog::serial
