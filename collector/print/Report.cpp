#include "collector/print/Report.h"

#include <nlohmann/json.hpp>

#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"
#include "collector/legend/FieldLegend.h"

namespace qxlog::collector {
namespace {

constexpr std::size_t kLabelWidth = 17;

std::string label(const std::string& name) {
  std::string out = name;
  if (out.size() < kLabelWidth) out.append(kLabelWidth - out.size(), ' ');
  return out;
}

Dictionary diagnosisFields(int64_t id, const DiagnosisRow& diagnosis) {
  Dictionary row;
  row.set("kind", Value("diagnosis"));
  row.set("id", Value(id));
  row.set("received_at", Value(diagnosis.receivedAt));
  row.set("peer", Value(diagnosis.peer));
  row.set("user_id", Value(diagnosis.userId));
  row.set("uid", Value(diagnosis.device));
  row.set("user_phone", Value(diagnosis.userPhone));
  row.set("velin", Value(diagnosis.velin));
  row.set("version", Value(diagnosis.version));
  return row;
}

}  // namespace

std::string printable(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (char c : serial::validUtf8(text)) {
    auto byte = static_cast<unsigned char>(c);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (byte < 0x20 || byte == 0x7f) {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    } else {
      out += c;
    }
  }
  return out;
}

std::optional<std::string> prettyJson(const std::string& text) {
  auto parsed = nlohmann::ordered_json::parse(text, nullptr, false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string prettyJson(const Value& value) {
  return prettyJson(serial::toJson(value)).value_or("null");
}

std::string describeRecord(const Dictionary& record, const std::string& indent, bool explain) {
  if (explain) {
    return indent + recordTypeName(record) + "\n" + explainRecord(record, indent + "    ");
  }
  Dictionary shown;
  const Array* actions = nullptr;
  for (const auto& [key, value] : record) {
    if (key == "p" && value.asArray()) {
      actions = value.asArray();
    } else {
      shown.set(key, value);
    }
  }
  std::string out =
      indent + label(recordTypeName(record)) + serial::toJson(Value(std::move(shown))) + "\n";
  if (actions == nullptr) return out;
  for (const Value& action : *actions) {
    const Dictionary* fields = action.asDictionary();
    if (fields && fields->empty()) {
      out += indent + "  " + label("play action") + "{} (a repeated buffering report, dropped)\n";
    } else {
      out += indent + "  " + label("play action") + serial::toJson(action) + "\n";
    }
  }
  return out;
}

std::string describeUpload(int64_t id, const UploadRow& upload, bool explain) {
  std::string out = "upload #" + std::to_string(id) + " from " + upload.peer + ": " +
                    std::to_string(upload.records.size()) + " record" +
                    (upload.records.size() == 1 ? "" : "s") + "\n";
  out += "  " + label("header") + serial::toJson(Value(upload.header)) + "\n";
  if (explain) out += explainHeader(upload.header, "      ");
  for (const Value& record : upload.records) {
    if (const Dictionary* fields = record.asDictionary()) {
      out += describeRecord(*fields, "  ", explain);
    }
  }
  return out;
}

std::string describeDiagnosis(int64_t id, const DiagnosisRow& diagnosis, bool explain) {
  Dictionary fields = diagnosisFields(id, diagnosis);
  for (const char* omitted : {"kind", "id", "received_at", "peer"}) fields.erase(omitted);
  return "diagnosis #" + std::to_string(id) + " from " + diagnosis.peer + "\n  " + label("fields") +
         serial::toJson(Value(std::move(fields))) + "\n  " + label("report") +
         serial::toJson(diagnosis.report) + "\n" +
         (explain ? explainPlaySummary(diagnosis.report, "  ") : std::string());
}

std::string uploadJsonLine(int64_t id, const UploadRow& upload) {
  Dictionary row;
  row.set("kind", Value("upload"));
  row.set("id", Value(id));
  row.set("received_at", Value(upload.receivedAt));
  row.set("peer", Value(upload.peer));
  row.set("header", Value(upload.header));
  row.set("records", Value(upload.records));
  return serial::toJson(Value(std::move(row)));
}

std::string diagnosisJsonLine(int64_t id, const DiagnosisRow& diagnosis) {
  Dictionary row = diagnosisFields(id, diagnosis);
  row.set("report", diagnosis.report);
  return serial::toJson(Value(std::move(row)));
}

}  // namespace qxlog::collector
