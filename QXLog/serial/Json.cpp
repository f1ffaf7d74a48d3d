#include "QXLog/serial/Json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

namespace qxlog::serial {
namespace {

// For each byte: 0 when it is written as is, else the character after the
// backslash ('u' for the \u00XX form).
constexpr std::array<char, 256> kEscapes = [] {
  std::array<char, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[static_cast<std::size_t>(c)] = 'u';
  table['"'] = '"';
  table['\\'] = '\\';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['\b'] = 'b';
  table['\f'] = 'f';
  return table;
}();

// Writes JSON through a pointer into the string's own bytes. The string is
// grown ahead of the writing in steps, doubling from a small one (zero-filled by the
// resize, so a one-record text must not start with a large step), and cut
// back to what was written at the end: the values here are many short
// strings, and one room check per piece costs far less than an append per
// character or per piece.
class JsonWriter {
 public:
  explicit JsonWriter(std::string& out) : out_(out), used_(out.size()) {}
  ~JsonWriter() { out_.resize(used_); }
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  void value(const Value& value) {
    switch (value.type()) {
      case Value::Type::kNull:
        return put("null");
      case Value::Type::kBool:
        return put(*value.asBool() ? "true" : "false");
      case Value::Type::kInteger: {
        char* o = room(24);
        commit(std::to_chars(o, o + 24, *value.asInteger()).ptr);
        return;
      }
      case Value::Type::kReal:
        return real(*value.asReal());
      case Value::Type::kString:
        return quoted('\0', *value.asString(), '\0');
      case Value::Type::kArray: {
        char separator = '[';
        for (const Value& element : *value.asArray()) {
          put(separator);
          separator = ',';
          this->value(element);
        }
        if (separator == '[') put('[');
        return put(']');
      }
      case Value::Type::kDictionary: {
        char separator = '{';
        for (const auto& [key, element] : *value.asDictionary()) {
          quoted(separator, key, ':');
          separator = ',';
          this->value(element);
        }
        if (separator == '{') put('{');
        return put('}');
      }
    }
  }

 private:
  static constexpr std::size_t kFirstStep = 256;
  static constexpr std::size_t kLargestStep = 4096;

  char* room(std::size_t n) {
    if (out_.size() - used_ < n) grow(n);
    return out_.data() + used_;
  }
  // Kept out of line: room() is on the path of every piece.
  [[gnu::noinline]] void grow(std::size_t n) {
    // Stay within the capacity the caller reserved when it is enough.
    const std::size_t step = std::clamp(used_, kFirstStep, kLargestStep);
    std::size_t size = std::min(out_.capacity(), used_ + step);
    if (size < used_ + n) size = used_ + n + step;
    out_.resize(size);
  }
  void commit(char* end) { used_ = static_cast<std::size_t>(end - out_.data()); }
  void put(char c) {
    char* o = room(1);
    *o = c;
    commit(o + 1);
  }
  void put(std::string_view text) {
    char* o = room(text.size());
    std::memcpy(o, text.data(), text.size());
    commit(o + text.size());
  }

  void real(double value) {
    if (!std::isfinite(value)) return put("null");
    char* o = room(32);
    commit(std::to_chars(o, o + 32, value).ptr);
  }

  // Writes `before`, the quoted and escaped text, then `after` (each of the
  // two unless it is '\0').
  void quoted(char before, std::string_view text, char after) {
    static constexpr char kHex[] = "0123456789abcdef";
    char* o = room(4 + 6 * text.size());
    if (before != '\0') *o++ = before;
    *o++ = '"';
    for (char ch : text) {
      const auto c = static_cast<unsigned char>(ch);
      const char escape = kEscapes[c];
      if (escape == 0) {
        *o++ = ch;
        continue;
      }
      *o++ = '\\';
      *o++ = escape;
      if (escape == 'u') {
        *o++ = '0';
        *o++ = '0';
        *o++ = kHex[c >> 4];
        *o++ = kHex[c & 0xf];
      }
    }
    *o++ = '"';
    if (after != '\0') *o++ = after;
    commit(o);
  }

  std::string& out_;
  std::size_t used_;
};

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
  JsonWriter(out).value(value);
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

}  // namespace qxlog::serial
