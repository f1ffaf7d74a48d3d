// JSON reading and writing of values: the stand-in for the platform's JSON
// serialisation.
#ifndef QXLOG_SERIAL_JSON_H_
#define QXLOG_SERIAL_JSON_H_

#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"

namespace qxlog::serial {

// Compact JSON (no whitespace), keys in insertion order. Non-finite reals,
// which JSON cannot carry, are written as null.
std::string toJson(const Value& value);
void appendJson(std::string& out, const Value& value);

// Parses a JSON text of any root type. Nothing for invalid JSON, or for
// nesting deeper than kMaxJsonDepth, which keeps hostile input from
// exhausting the stack.
inline constexpr int kMaxJsonDepth = 512;
std::optional<Value> parseJson(std::string_view text);

}  // namespace qxlog::serial

#endif  // QXLOG_SERIAL_JSON_H_
