#include "QXLog/serial/FormEncoding.h"

#include <algorithm>
#include <vector>

#include "QXLog/serial/Json.h"

namespace qxlog::serial {
namespace {

void appendPairs(std::vector<std::pair<std::string, std::string>>& pairs, const std::string& key,
                 const Value& value);

void appendDictionaryPairs(std::vector<std::pair<std::string, std::string>>& pairs,
                           const std::string& prefix, const Dictionary& dictionary) {
  std::vector<const Dictionary::Entry*> sorted;
  for (const auto& entry : dictionary) sorted.push_back(&entry);
  std::sort(sorted.begin(), sorted.end(),
            [](const auto* a, const auto* b) { return a->first < b->first; });
  for (const auto* entry : sorted) {
    std::string key = prefix.empty() ? entry->first : prefix + "[" + entry->first + "]";
    appendPairs(pairs, key, entry->second);
  }
}

void appendPairs(std::vector<std::pair<std::string, std::string>>& pairs, const std::string& key,
                 const Value& value) {
  if (const Dictionary* dictionary = value.asDictionary()) {
    appendDictionaryPairs(pairs, key, *dictionary);
  } else if (const Array* array = value.asArray()) {
    for (const Value& element : *array) appendPairs(pairs, key + "[]", element);
  } else if (const std::string* text = value.asString()) {
    pairs.emplace_back(key, *text);
  } else if (value.isNull()) {
    pairs.emplace_back(key, "");
  } else {
    pairs.emplace_back(key, toJson(value));
  }
}

}  // namespace

std::string formEncode(const Dictionary& parameters) {
  std::vector<std::pair<std::string, std::string>> pairs;
  appendDictionaryPairs(pairs, "", parameters);
  std::string body;
  for (const auto& [key, value] : pairs) {
    if (!body.empty()) body += '&';
    body += percentEscapeFormComponent(key);
    body += '=';
    body += percentEscapeFormComponent(value);
  }
  return body;
}

}  // namespace qxlog::serial
