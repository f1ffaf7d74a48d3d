// The object model shared by records, queue files, envelopes and server answers:
// JSON-like values whose dictionaries keep insertion order, so that records read
// like their key tables in traces and files.
#ifndef QXLOG_QXLOGVALUE_H_
#define QXLOG_QXLOGVALUE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace qxlog {

// A string that may be nil. nil and "" are different values.
using NullableString = std::optional<std::string>;

class Value;
using Array = std::vector<Value>;

// A mutable dictionary with string keys. Setting an existing key replaces its
// value in place; a new key is appended, so iteration follows insertion order.
class Dictionary {
 public:
  using Entry = std::pair<std::string, Value>;

  Dictionary() = default;

  void set(std::string_view key, Value value);
  // Sets a string, storing "" for nil, as every record builder does.
  void setString(std::string_view key, const NullableString& value);
  const Value* find(std::string_view key) const;
  Value* find(std::string_view key);
  bool erase(std::string_view key);

  // Defined below Value: they need the complete type, which clang insists on.
  std::size_t size() const;
  bool empty() const;
  void clear();
  void reserve(std::size_t n);

  std::vector<Entry>::const_iterator begin() const;
  std::vector<Entry>::const_iterator end() const;

  // Key order carries no meaning: equality compares the key sets and values.
  bool operator==(const Dictionary& other) const;

 private:
  std::vector<Entry> entries_;
};

class Value {
 public:
  enum class Type { kNull, kBool, kInteger, kReal, kString, kArray, kDictionary };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : data_(b) {}
  Value(int i) : data_(static_cast<int64_t>(i)) {}
  Value(int64_t i) : data_(i) {}
  Value(double d) : data_(d) {}
  Value(const char* s) : data_(std::string(s)) {}
  Value(std::string s) : data_(std::move(s)) {}
  Value(std::string_view s) : data_(std::string(s)) {}
  Value(Array a) : data_(std::move(a)) {}
  Value(Dictionary d) : data_(std::move(d)) {}
  // nil becomes the null value.
  static Value fromNullable(const NullableString& s) { return s ? Value(*s) : Value(); }

  Type type() const { return static_cast<Type>(data_.index()); }
  bool isNull() const { return type() == Type::kNull; }
  bool isString() const { return type() == Type::kString; }
  bool isArray() const { return type() == Type::kArray; }
  bool isDictionary() const { return type() == Type::kDictionary; }

  // Accessors return null when the value is of another type.
  const std::string* asString() const { return std::get_if<std::string>(&data_); }
  const Array* asArray() const { return std::get_if<Array>(&data_); }
  Array* asArray() { return std::get_if<Array>(&data_); }
  const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&data_); }
  Dictionary* asDictionary() { return std::get_if<Dictionary>(&data_); }
  const bool* asBool() const { return std::get_if<bool>(&data_); }
  const int64_t* asInteger() const { return std::get_if<int64_t>(&data_); }
  const double* asReal() const { return std::get_if<double>(&data_); }

  bool operator==(const Value& other) const { return data_ == other.data_; }

 private:
  std::variant<std::monostate, bool, int64_t, double, std::string, Array, Dictionary> data_;
};

inline std::size_t Dictionary::size() const {
  return entries_.size();
}
inline bool Dictionary::empty() const {
  return entries_.empty();
}
inline void Dictionary::clear() {
  entries_.clear();
}
inline void Dictionary::reserve(std::size_t n) {
  entries_.reserve(n);
}
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::begin() const {
  return entries_.begin();
}
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::end() const {
  return entries_.end();
}

inline bool Dictionary::operator==(const Dictionary& other) const {
  if (size() != other.size()) return false;
  for (const auto& [key, value] : entries_) {
    const Value* theirs = other.find(key);
    if (theirs == nullptr || !(*theirs == value)) return false;
  }
  return true;
}

// Builds a dictionary of strings from a list of key/value pairs, in order.
Dictionary makeStringDictionary(
    std::initializer_list<std::pair<std::string_view, std::string_view>> pairs);

}  // namespace qxlog

#endif  // QXLOG_QXLOGVALUE_H_
