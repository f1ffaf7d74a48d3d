// Reading goes through libplist, a complete and independent parser of the
// format.
#include <plist/plist.h>

#include <limits>
#include <memory>

#include "QXLog/serial/Json.h"
#include "QXLog/serial/PropertyList.h"

namespace qxlog::serial {
namespace {

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistHolder = std::unique_ptr<void, PlistFree>;

Value convert(plist_t node);

Value convertString(plist_t node) {
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  return text != nullptr ? Value(std::string(text, length)) : Value(std::string());
}

Value convertArray(plist_t node) {
  Array array;
  uint32_t size = plist_array_get_size(node);
  array.reserve(size);
  for (uint32_t i = 0; i < size; ++i) array.push_back(convert(plist_array_get_item(node, i)));
  return Value(std::move(array));
}

Value convertDictionary(plist_t node) {
  Dictionary dictionary;
  dictionary.reserve(plist_dict_get_size(node));
  plist_dict_iter iter = nullptr;
  plist_dict_new_iter(node, &iter);
  for (;;) {
    char* key = nullptr;
    plist_t element = nullptr;
    plist_dict_next_item(node, iter, &key, &element);
    if (key == nullptr) break;
    dictionary.set(key, convert(element));
    free(key);
  }
  free(iter);
  return Value(std::move(dictionary));
}

Value convert(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t flag = 0;
      plist_get_bool_val(node, &flag);
      return Value(flag != 0);
    }
    case PLIST_UINT: {
      uint64_t number = 0;
      plist_get_uint_val(node, &number);
      return Value(static_cast<int64_t>(number));
    }
    case PLIST_REAL: {
      double number = 0;
      plist_get_real_val(node, &number);
      return Value(number);
    }
    case PLIST_STRING:
    case PLIST_KEY:
      return convertString(node);
    case PLIST_ARRAY:
      return convertArray(node);
    case PLIST_DICT:
      return convertDictionary(node);
    default:
      return Value();
  }
}

// Whether the XML's <array> and <dict> elements nest deeper than `limit`. The
// parser and the conversion recurse once per level, so a file nested a
// hundred thousand deep would overflow the stack; such a file is refused as
// damaged before either runs. Tags are counted as text: comments or CDATA
// holding tags can only make the count err on the side of refusing.
bool nestsDeeperThan(std::string_view xml, int limit) {
  int depth = 0;
  for (std::size_t at = xml.find('<'); at != std::string_view::npos; at = xml.find('<', at + 1)) {
    std::string_view tag = xml.substr(at + 1, 7);
    bool closing = !tag.empty() && tag[0] == '/';
    if (closing) tag.remove_prefix(1);
    bool container = tag.starts_with("array") || tag.starts_with("dict");
    if (!container) continue;
    std::size_t end = xml.find('>', at);
    bool empty = end != std::string_view::npos && end > at && xml[end - 1] == '/';
    if (closing) {
      --depth;
    } else if (!empty && ++depth > limit) {
      return true;
    }
  }
  return false;
}

bool isBinary(std::string_view bytes) {
  return bytes.starts_with("bplist");
}

}  // namespace

std::optional<Value> parsePropertyList(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  if (!isBinary(bytes) && nestsDeeperThan(bytes, kMaxJsonDepth)) return std::nullopt;
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  if (root == nullptr) return std::nullopt;
  PlistHolder holder(root);
  return convert(root);
}

}  // namespace qxlog::serial
