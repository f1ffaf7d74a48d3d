// XML property lists: the on-disk form of the queue files, loadable by any
// standard plist reader.
#ifndef QXLOG_SERIAL_PROPERTYLIST_H_
#define QXLOG_SERIAL_PROPERTYLIST_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QXLog/QXLogValue.h"

namespace qxlog::serial {

// Serialises a value as an XML property list. Property lists have no null: a
// null is written as an empty string.
std::string toXmlPropertyList(const Value& root);
void appendXmlPropertyList(std::string& out, const Value& root);
// The same for collection roots, without wrapping them in a value first.
void appendXmlPropertyList(std::string& out, const Array& root);
void appendXmlPropertyList(std::string& out, const Dictionary& root);

// One element of a non-empty root array, exactly as appendXmlPropertyList
// writes it inside that array.
void appendXmlRootArrayElement(std::string& out, const Value& element);
// A root array whose elements were written by appendXmlRootArrayElement: the
// same bytes as appendXmlPropertyList of the array they came from.
void appendXmlPropertyListOfElements(std::string& out, const std::vector<std::string>& elements);

// Parses an XML (or binary) property list. Nothing when the bytes do not hold one.
std::optional<Value> parsePropertyList(std::string_view bytes);

}  // namespace qxlog::serial

#endif  // QXLOG_SERIAL_PROPERTYLIST_H_
