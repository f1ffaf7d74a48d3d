#include "collector/decode/JsonShape.h"

#include <array>

namespace qxlog::collector {
namespace {

// Containers deeper than this are refused whatever the limit says, so that
// the per-level counts fit on the stack.
constexpr std::size_t kDepthCeiling = 256;

struct Level {
  std::size_t elements = 0;
  std::size_t limit = 0;
  bool records = false;
};

bool isSpace(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

std::string tooMany(const Level& level) {
  return level.records
             ? "more than " + std::to_string(level.limit) + " records"
             : "an array or object of more than " + std::to_string(level.limit) + " elements";
}

}  // namespace

std::string checkJsonShape(std::string_view json, const JsonShapeLimits& limits) {
  const std::size_t maxDepth = std::min(limits.maxDepth, kDepthCeiling);
  std::array<Level, kDepthCeiling + 1> levels{};  // [0]: the top, outside any container
  levels[0].limit = 1;
  std::size_t depth = 0;
  std::size_t values = 0;
  // Within the top-level object: whether the last string seen was exactly
  // "a", so that an array opened after it is the records.
  bool lastKeyIsRecords = false;
  bool topIsObject = false;
  // An element starts at the first byte of a value: counted there.
  bool expectingValue = true;
  auto startValue = [&]() -> std::string {
    if (!expectingValue) return "";
    expectingValue = false;
    Level& level = levels[depth];
    if (++level.elements > level.limit) return tooMany(level);
    if (++values > limits.maxValues) {
      return "more than " + std::to_string(limits.maxValues) + " values";
    }
    return "";
  };

  for (std::size_t i = 0; i < json.size(); ++i) {
    const char c = json[i];
    if (isSpace(c)) continue;
    if (c == '"') {
      const std::size_t start = i + 1;
      // A key is not a value; the parser tells them apart, this counts
      // members at their key and skips the value's own count after ':'.
      if (std::string why = startValue(); !why.empty()) return why;
      for (++i; i < json.size() && json[i] != '"'; ++i) {
        if (json[i] == '\\') ++i;
      }
      const std::size_t length = std::min(i, json.size()) - start;
      if (length > limits.maxStringBytes) {
        return "a string of more than " + std::to_string(limits.maxStringBytes) + " bytes";
      }
      if (depth == 1 && topIsObject) lastKeyIsRecords = json.substr(start, length) == "a";
      continue;
    }
    if (c == ':') {
      // The member was counted at its key; its value is not another element.
      continue;
    }
    if (c == ',') {
      expectingValue = true;
      if (depth == 1 && topIsObject) lastKeyIsRecords = false;
      continue;
    }
    if (c == '[' || c == '{') {
      const bool isRecords =
          c == '[' && depth == 1 && topIsObject && lastKeyIsRecords && limits.maxRecords > 0;
      if (std::string why = startValue(); !why.empty()) return why;
      if (depth == 0) topIsObject = c == '{';
      if (++depth > maxDepth) {
        return "nested deeper than " + std::to_string(maxDepth) + " levels";
      }
      levels[depth] = Level{0, isRecords ? limits.maxRecords : limits.maxElements, isRecords};
      expectingValue = true;
      continue;
    }
    if (c == ']' || c == '}') {
      if (depth == 0) return "";  // unbalanced: the parser refuses it
      --depth;
      expectingValue = false;
      continue;
    }
    // The first byte of a number, true, false or null.
    if (std::string why = startValue(); !why.empty()) return why;
  }
  return "";
}

}  // namespace qxlog::collector
