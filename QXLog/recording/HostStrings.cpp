#include "QXLog/recording/HostStrings.h"

#include <cstdlib>
#include <cstring>

#include "QXLog/serial/Text.h"

namespace qxlog::recording {

NullableString fromHost(const char* text) {
  if (text == nullptr) return std::nullopt;
  return serial::validUtf8(text);
}

char* toHost(const NullableString& text) {
  if (!text) return nullptr;
  char* copy = static_cast<char*>(std::malloc(text->size() + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text->c_str(), text->size() + 1);
  return copy;
}

}  // namespace qxlog::recording
