#include "QXLog/platform/Json.h"

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

namespace qxlog::platform {
namespace {

void appendEscaped(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  std::size_t plainStart = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(text, plainStart, i - plainStart);
    plainStart = i + 1;
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      default:
        out += "\\u00";
        out += kHex[c >> 4];
        out += kHex[c & 0xf];
    }
  }
  out.append(text, plainStart, text.size() - plainStart);
  out += '"';
}

void appendReal(std::string& out, double value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  char text[32];
  auto result = std::to_chars(text, text + sizeof text, value);
  out.append(text, result.ptr);
}

// GCC 12 reports "may be used uninitialized" inside std::variant's move
// constructor when the builder appends a value it has moved; the variant is
// always initialised, and the report is a known false positive of that compiler.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// Builds values straight from the parser's events, refusing deep nesting.
class ValueBuilder final : public nlohmann::json_sax<nlohmann::json> {
 public:
  std::optional<Value> result;

  bool null() override { return add(Value()); }
  bool boolean(bool v) override { return add(Value(v)); }
  bool number_integer(number_integer_t v) override { return add(Value(static_cast<int64_t>(v))); }
  bool number_unsigned(number_unsigned_t v) override {
    if (v <= static_cast<number_unsigned_t>(INT64_MAX)) return add(Value(static_cast<int64_t>(v)));
    return add(Value(static_cast<double>(v)));
  }
  bool number_float(number_float_t v, const string_t&) override { return add(Value(v)); }
  bool string(string_t& v) override { return add(Value(std::move(v))); }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override { return open(Value(Dictionary())); }
  bool key(string_t& k) override {
    pendingKey_ = std::move(k);
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Value(Array())); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  bool open(Value container) {
    if (static_cast<int>(stack_.size()) >= kMaxJsonDepth) return false;
    stack_.push_back(Frame{std::move(container), std::move(pendingKey_)});
    return true;
  }
  bool close() {
    Frame frame = std::move(stack_.back());
    stack_.pop_back();
    pendingKey_ = std::move(frame.key);
    return add(std::move(frame.container));
  }
  bool add(Value&& value) {
    if (stack_.empty()) {
      result = std::move(value);
    } else if (Array* array = stack_.back().container.asArray()) {
      array->push_back(std::move(value));
    } else {
      stack_.back().container.asDictionary()->set(pendingKey_, std::move(value));
    }
    return true;
  }

  struct Frame {
    Value container;
    std::string key;  // the key the container will be stored under in its parent
  };
  std::vector<Frame> stack_;
  std::string pendingKey_;
};

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // namespace

void appendJson(std::string& out, const Value& value) {
  switch (value.type()) {
    case Value::Type::kNull:
      out += "null";
      break;
    case Value::Type::kBool:
      out += *value.asBool() ? "true" : "false";
      break;
    case Value::Type::kInteger:
      out += std::to_string(*value.asInteger());
      break;
    case Value::Type::kReal:
      appendReal(out, *value.asReal());
      break;
    case Value::Type::kString:
      appendEscaped(out, *value.asString());
      break;
    case Value::Type::kArray: {
      out += '[';
      bool first = true;
      for (const Value& element : *value.asArray()) {
        if (!first) out += ',';
        first = false;
        appendJson(out, element);
      }
      out += ']';
      break;
    }
    case Value::Type::kDictionary: {
      out += '{';
      bool first = true;
      for (const auto& [key, element] : *value.asDictionary()) {
        if (!first) out += ',';
        first = false;
        appendEscaped(out, key);
        out += ':';
        appendJson(out, element);
      }
      out += '}';
      break;
    }
  }
}

std::string toJson(const Value& value) {
  std::string out;
  appendJson(out, value);
  return out;
}

std::optional<Value> parseJson(std::string_view text) {
  ValueBuilder builder;
  bool ok = nlohmann::json::sax_parse(text.begin(), text.end(), &builder,
                                      nlohmann::json::input_format_t::json, true, false);
  if (!ok) return std::nullopt;
  return std::move(builder.result);
}

}  // namespace qxlog::platform
