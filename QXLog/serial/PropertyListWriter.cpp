// A direct XML writer: every store rewrites a whole queue file on the host's
// thread, and streaming the text is several times cheaper than building a
// plist tree first.
#include <charconv>
#include <cmath>

#include "QXLog/serial/PropertyList.h"

namespace qxlog::serial {
namespace {

constexpr std::string_view kPrologue =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kEpilogue = "</plist>\n";
constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

// XML 1.0 cannot carry C0 control characters other than tab, line feed and
// carriage return, not even as references; they are written as U+FFFD. A
// carriage return is written as a reference so that the reader's line-end
// normalisation does not turn it into a line feed.
const char* replacementFor(unsigned char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '\r':
      return "&#13;";
    case '\t':
    case '\n':
      return nullptr;
    default:
      return c < 0x20 ? kReplacementCharacter.data() : nullptr;
  }
}

void appendEscaped(std::string& out, std::string_view text) {
  std::size_t plainStart = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c > '>') continue;  // fast path: nothing above '>' needs escaping in ASCII or UTF-8
    const char* replacement = replacementFor(c);
    if (replacement == nullptr) continue;
    out.append(text, plainStart, i - plainStart);
    out += replacement;
    plainStart = i + 1;
  }
  out.append(text, plainStart, text.size() - plainStart);
}

void appendIndent(std::string& out, int depth) {
  out.append(static_cast<std::size_t>(depth), '\t');
}

// An element whose text needs no escaping. The tags are whole literals
// ("<real>", "</real>\n"): three appends, where a record's keys and strings
// are the bulk of every store's writing.
void appendElement(std::string& out, std::string_view open, std::string_view escapedText,
                   std::string_view close) {
  out += open;
  out += escapedText;
  out += close;
}

void appendString(std::string& out, std::string_view open, std::string_view text,
                  std::string_view close) {
  out += open;
  appendEscaped(out, text);
  out += close;
}

void appendReal(std::string& out, double value) {
  if (std::isnan(value)) return appendElement(out, "<real>", "nan", "</real>\n");
  if (std::isinf(value)) {
    return appendElement(out, "<real>", value > 0 ? "+infinity" : "-infinity", "</real>\n");
  }
  char text[32];
  auto result = std::to_chars(text, text + sizeof text, value);
  appendElement(out, "<real>", std::string_view(text, static_cast<std::size_t>(result.ptr - text)),
                "</real>\n");
}

void appendNode(std::string& out, const Value& value, int depth);

void appendArray(std::string& out, const Array& array, int depth) {
  if (array.empty()) {
    out += "<array/>\n";
    return;
  }
  out += "<array>\n";
  for (const Value& element : array) {
    appendIndent(out, depth + 1);
    appendNode(out, element, depth + 1);
  }
  appendIndent(out, depth);
  out += "</array>\n";
}

void appendDictionary(std::string& out, const Dictionary& dictionary, int depth) {
  if (dictionary.empty()) {
    out += "<dict/>\n";
    return;
  }
  out += "<dict>\n";
  for (const auto& [key, element] : dictionary) {
    appendIndent(out, depth + 1);
    appendString(out, "<key>", key, "</key>\n");
    appendIndent(out, depth + 1);
    appendNode(out, element, depth + 1);
  }
  appendIndent(out, depth);
  out += "</dict>\n";
}

void appendNode(std::string& out, const Value& value, int depth) {
  switch (value.type()) {
    case Value::Type::kNull:
      return appendElement(out, "<string>", "", "</string>\n");
    case Value::Type::kBool:
      out += *value.asBool() ? "<true/>\n" : "<false/>\n";
      return;
    case Value::Type::kInteger:
      return appendElement(out, "<integer>", std::to_string(*value.asInteger()), "</integer>\n");
    case Value::Type::kReal:
      return appendReal(out, *value.asReal());
    case Value::Type::kString:
      return appendString(out, "<string>", *value.asString(), "</string>\n");
    case Value::Type::kArray:
      return appendArray(out, *value.asArray(), depth);
    case Value::Type::kDictionary:
      return appendDictionary(out, *value.asDictionary(), depth);
  }
}

}  // namespace

void appendXmlPropertyList(std::string& out, const Value& root) {
  out += kPrologue;
  appendNode(out, root, 0);
  out += kEpilogue;
}

void appendXmlPropertyList(std::string& out, const Array& root) {
  out += kPrologue;
  appendArray(out, root, 0);
  out += kEpilogue;
}

void appendXmlPropertyList(std::string& out, const Dictionary& root) {
  out += kPrologue;
  appendDictionary(out, root, 0);
  out += kEpilogue;
}

void appendXmlRootArrayElement(std::string& out, const Value& element) {
  appendIndent(out, 1);
  appendNode(out, element, 1);
}

void appendXmlPropertyListOfElements(std::string& out, const std::vector<std::string>& elements) {
  if (elements.empty()) return appendXmlPropertyList(out, Array());
  std::size_t size = kPrologue.size() + kEpilogue.size() + 32;
  for (const std::string& element : elements) size += element.size();
  out.reserve(out.size() + size);
  out += kPrologue;
  out += "<array>\n";
  for (const std::string& element : elements) out += element;
  out += "</array>\n";
  out += kEpilogue;
}

std::string toXmlPropertyList(const Value& root) {
  std::string out;
  appendXmlPropertyList(out, root);
  return out;
}

}  // namespace qxlog::serial
