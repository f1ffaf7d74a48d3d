#include "QXLog/recording/HostDictionary.h"

#include "QXLog/recording/HostStrings.h"
#include "QXLog/serial/Json.h"

namespace qxlog::recording {

void retainDictionary(QXLogDictionary* dictionary) {
  if (dictionary != nullptr) dictionary->references.fetch_add(1, std::memory_order_relaxed);
}

DictionaryHandle::DictionaryHandle(QXLogDictionary* dictionary) : dictionary_(dictionary) {
  retainDictionary(dictionary_);
}

DictionaryHandle::DictionaryHandle(const DictionaryHandle& other)
    : DictionaryHandle(other.dictionary_) {}

DictionaryHandle::~DictionaryHandle() {
  QXLogDictionaryRelease(dictionary_);
}

Dictionary DictionaryHandle::snapshot() const {
  if (dictionary_ == nullptr) return Dictionary();
  std::lock_guard lock(dictionary_->mutex);
  return dictionary_->contents;
}

}  // namespace qxlog::recording

using qxlog::recording::fromHost;

QXLogDictionary* QXLogDictionaryCreate(void) {
  return new QXLogDictionary();
}

QXLogDictionary* QXLogDictionaryCreateWithJSON(const char* json) {
  if (json == nullptr) return nullptr;
  // Invalid UTF-8 gets the same U+FFFD treatment as every other host string,
  // rather than making the whole text unreadable as JSON.
  std::optional<qxlog::Value> parsed = qxlog::serial::parseJson(*fromHost(json));
  if (!parsed || !parsed->isDictionary()) return nullptr;
  auto* dictionary = new QXLogDictionary();
  dictionary->contents = std::move(*parsed->asDictionary());
  return dictionary;
}

char* QXLogDictionaryCopyJSON(const QXLogDictionary* dictionary) {
  if (dictionary == nullptr) return nullptr;
  std::lock_guard lock(dictionary->mutex);
  return qxlog::recording::toHost(qxlog::serial::toJson(qxlog::Value(dictionary->contents)));
}

void QXLogDictionaryRelease(QXLogDictionary* dictionary) {
  if (dictionary == nullptr) return;
  if (dictionary->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete dictionary;
}

void put(QXLogDictionary* dictionary, const char* key, const char* value) {
  if (dictionary == nullptr || key == nullptr) return;
  qxlog::NullableString text = fromHost(value);
  std::lock_guard lock(dictionary->mutex);
  dictionary->contents.setString(*fromHost(key), text);
}
