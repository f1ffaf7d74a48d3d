// qxlog-decode: reads what the library sends, and what a collector stored.
//
//   qxlog-decode --key KEY [TEXT]     decodes a "log_data" or "diagnosis_log"
//                                     value (or a whole form body holding one),
//                                     from TEXT or standard input, to JSON
//   qxlog-decode --records DB [--type TYPE]
//                                     prints a collector database's records
//                                     (an SQLite file or a PostgreSQL URI)
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "QXLog/serial/Json.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "collector/http/HttpServer.h"
#include "collector/legend/FieldLegend.h"
#include "collector/print/Report.h"
#include "collector/store/CollectorStore.h"

namespace {

using namespace qxlog::collector;

constexpr const char* kUsage = R"(usage: qxlog-decode [--key KEY] [--compact | --explain] [TEXT]
       qxlog-decode --records DB [--type TYPE] [--json | --explain]
       qxlog-decode --explain

Decodes a "log_data" or "diagnosis_log" value (base64, AES-128-ECB under KEY,
gzip, JSON) given as TEXT or on standard input, and prints the JSON, indented
unless --compact. A whole form body ("log_data=...&token=...") or a
percent-encoded value is accepted too.

--records prints the records a collector stored in DB (an SQLite file, or a
PostgreSQL URI: postgresql://...), named by type, with
their play actions; --type keeps one type: a code ("2") or a name (launch,
action, download, network, film, short, channel, diagnosis).

--explain names every key with its meaning: alone, it prints the legend of
the header and of each record type.
)";

int fail(const std::string& message) {
  std::fprintf(stderr, "qxlog-decode: %s\n", message.c_str());
  return 1;
}

std::string trimmed(std::string text) {
  const std::size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string::npos) return "";
  const std::size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(start, end - start + 1);
}

// The encoded value inside whatever was pasted: a form body, a
// percent-encoded value, or the value itself.
std::string encodedValue(const std::string& input) {
  if (input.find("log_data=") != std::string::npos ||
      input.find("diagnosis_log=") != std::string::npos) {
    std::multimap<std::string, std::string> fields;
    parseFormFields(input, fields);
    for (const char* name : {"log_data", "diagnosis_log"}) {
      if (auto it = fields.find(name); it != fields.end()) return it->second;
    }
  }
  if (input.find('%') != std::string::npos) return percentDecode(input, false);
  return input;
}

// The decoded upload with each key's meaning: the header, then each record.
int explainUpload(const std::string& json) {
  std::optional<qxlog::Value> parsed = qxlog::serial::parseJson(json);
  const qxlog::Dictionary* upload = parsed ? parsed->asDictionary() : nullptr;
  if (upload == nullptr) return fail("json: the decoded text is not a JSON object");
  const qxlog::Value* header = upload->find("t");
  const qxlog::Value* records = upload->find("a");
  if (header != nullptr && header->asDictionary() != nullptr) {
    std::printf("header\n%s", explainHeader(*header->asDictionary(), "    ").c_str());
  }
  if (records == nullptr || records->asArray() == nullptr) return 0;
  for (const qxlog::Value& record : *records->asArray()) {
    if (const qxlog::Dictionary* fields = record.asDictionary()) {
      std::printf("%s", describeRecord(*fields, "", true).c_str());
    }
  }
  return 0;
}

int decode(const qxlog::NullableString& key, bool compact, bool explain,
           std::optional<std::string> text) {
  if (!text) {
    if (isatty(STDIN_FILENO)) std::fprintf(stderr, "qxlog-decode: reading standard input\n");
    text = std::string(std::istreambuf_iterator<char>(std::cin), {});
  }
  const std::string value = encodedValue(trimmed(*text));
  if (value.empty() && explain) {
    std::fputs(legendText().c_str(), stdout);
    return 0;
  }
  if (value.empty()) return fail("nothing to decode");
  Decoded<std::string> json = decodeLogDataText(value, key);
  if (!json) return fail(json.error);
  if (explain) return explainUpload(*json.value);
  if (compact) {
    std::optional<qxlog::Value> parsed = qxlog::serial::parseJson(*json.value);
    if (!parsed) return fail("json: the decoded text is not valid JSON");
    std::printf("%s\n", qxlog::serial::toJson(*parsed).c_str());
    return 0;
  }
  std::optional<std::string> pretty = prettyJson(*json.value);
  if (!pretty) return fail("json: the decoded text is not valid JSON");
  std::printf("%s\n", pretty->c_str());
  return 0;
}

int records(const std::string& path, const std::optional<std::string>& type, bool json,
            bool explain) {
  if (!CollectorStore::isPostgresLocation(path) && ::access(path.c_str(), R_OK) != 0) {
    return fail(path + ": no such database");
  }
  std::string error;
  auto store = CollectorStore::open(path, error);
  if (!store) return fail(error);
  if (!type || *type != "diagnosis") {
    for (const StoredRecord& record : store->records(type)) {
      std::optional<qxlog::Value> body = qxlog::serial::parseJson(record.body);
      if (!body || !body->asDictionary()) continue;
      if (json) {
        qxlog::Dictionary row;
        row.set("id", qxlog::Value(record.id));
        row.set("upload_id", qxlog::Value(record.uploadId));
        row.set("received_at", qxlog::Value(record.receivedAt));
        row.set("name", qxlog::Value(record.name));
        row.set("record", std::move(*body));
        std::printf("%s\n", qxlog::serial::toJson(qxlog::Value(std::move(row))).c_str());
      } else {
        std::printf("#%-5lld upload #%-4lld%s", static_cast<long long>(record.id),
                    static_cast<long long>(record.uploadId),
                    describeRecord(*body->asDictionary(), " ", explain).c_str());
      }
    }
  }
  if (!type || *type == "diagnosis") {
    for (const std::string& diagnosis : store->diagnoses()) {
      std::printf(json ? "%s\n" : "diagnosis    %s\n", diagnosis.c_str());
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  qxlog::NullableString key;
  std::optional<std::string> database;
  std::optional<std::string> type;
  std::optional<std::string> text;
  bool compact = false;
  bool json = false;
  bool explain = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--compact") {
      compact = true;
    } else if (arg == "--json") {
      json = true;
    } else if (arg == "--explain") {
      explain = true;
    } else if (arg == "--key" && hasValue) {
      key = argv[++i];
    } else if (arg == "--records" && hasValue) {
      database = argv[++i];
    } else if (arg == "--type" && hasValue) {
      const std::string name = argv[++i];
      type = name == "diagnosis" ? std::optional(name) : recordTypeCode(name);
      if (!type) return fail("unknown record type: " + name);
    } else if (arg == "-") {
      text.reset();
    } else if (!arg.starts_with("--") && !text) {
      text = std::string(arg);
    } else {
      std::fprintf(stderr, "qxlog-decode: unexpected argument: %s\n%s", argv[i], kUsage);
      return 2;
    }
  }
  if (database) return records(*database, type, json, explain);
  if (explain && !text && isatty(STDIN_FILENO)) {
    std::fputs(legendText().c_str(), stdout);
    return 0;
  }
  return decode(key, compact, explain, text);
}
