#include "QXLog/QXLogValue.h"

namespace qxlog {

void Dictionary::set(std::string_view key, Value value) {
  if (Value* existing = find(key)) {
    *existing = std::move(value);
    return;
  }
  entries_.emplace_back(std::string(key), std::move(value));
}

void Dictionary::setString(std::string_view key, const NullableString& value) {
  set(key, Value(value.value_or(std::string())));
}

const Value* Dictionary::find(std::string_view key) const {
  for (const auto& entry : entries_) {
    if (entry.first == key) return &entry.second;
  }
  return nullptr;
}

Value* Dictionary::find(std::string_view key) {
  for (auto& entry : entries_) {
    if (entry.first == key) return &entry.second;
  }
  return nullptr;
}

bool Dictionary::erase(std::string_view key) {
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (it->first == key) {
      entries_.erase(it);
      return true;
    }
  }
  return false;
}

Dictionary makeStringDictionary(
    std::initializer_list<std::pair<std::string_view, std::string_view>> pairs) {
  Dictionary dictionary;
  dictionary.reserve(pairs.size());
  for (const auto& [key, value] : pairs) dictionary.set(key, Value(value));
  return dictionary;
}

}  // namespace qxlog
