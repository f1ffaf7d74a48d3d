#include "collector/store/CollectorStore.h"

#include <openssl/evp.h>

#include <utility>

#include "QXLog/serial/Json.h"
#include "collector/store/PostgresStore.h"
#include "collector/store/SqliteStore.h"

namespace qxlog::collector {
namespace {

std::string stringField(const Dictionary& dictionary, const char* key) {
  const Value* value = dictionary.find(key);
  return value && value->asString() ? *value->asString() : std::string();
}

}  // namespace

bool isPlayHeader(const Dictionary& record) {
  const Value* actions = record.find("p");
  if (actions && actions->asArray()) return true;
  const std::string type = stringField(record, "a_t");
  return type == "1" || type == "5" || type == "6";
}

std::string recordTypeName(const Dictionary& record) {
  const std::string type = stringField(record, "a_t");
  if (isPlayHeader(record)) {
    if (type == "1") return "film play";
    if (type == "5") return "short video play";
    if (type == "6") return "channel play";
    return "play (type " + type + ")";
  }
  if (type == "0") return "launch";
  if (type == "2") return "action";
  if (type == "3") return "download";
  if (type == "7") return "network";
  return "type " + type;
}

std::optional<std::string> recordTypeCode(const std::string& nameOrCode) {
  static const std::pair<const char*, const char*> kNames[] = {
      {"launch", "0"}, {"film", "1"},    {"action", "2"},  {"download", "3"},
      {"short", "5"},  {"channel", "6"}, {"network", "7"},
  };
  for (const auto& [name, code] : kNames) {
    if (nameOrCode == name) return code;
  }
  if (!nameOrCode.empty() && nameOrCode.find_first_not_of("0123456789") == std::string::npos) {
    return nameOrCode;
  }
  return std::nullopt;
}

bool CollectorStore::isPostgresLocation(const std::string& location) {
  return location.starts_with("postgresql://") || location.starts_with("postgres://");
}

std::unique_ptr<CollectorStore> CollectorStore::open(const std::string& location,
                                                     std::string& error) {
  return open(location, StoreOptions(), error);
}

std::unique_ptr<CollectorStore> CollectorStore::open(const std::string& location,
                                                     const StoreOptions& options,
                                                     std::string& error) {
  if (isPostgresLocation(location)) return openPostgresStore(location, options, error);
  return openSqliteStore(location, options, error);
}

std::optional<int64_t> CollectorStore::addUpload(const UploadRow& upload, std::string& error) {
  try {
    return storeUpload(upload).id;
  } catch (const StoreError& failure) {
    error = failure.what();
    return std::nullopt;
  }
}

std::optional<int64_t> CollectorStore::addDiagnosis(const DiagnosisRow& diagnosis,
                                                    std::string& error) {
  try {
    return storeDiagnosis(diagnosis);
  } catch (const StoreError& failure) {
    error = failure.what();
    return std::nullopt;
  }
}

std::vector<std::string> CollectorStore::diagnoses() {
  std::vector<std::string> out;
  for (StoredDiagnosis& stored : allDiagnoses()) {
    Dictionary row;
    row.set("id", Value(stored.id));
    row.set("received_at", Value(stored.receivedAt));
    row.set("peer", std::move(stored.peer));
    row.set("user_id", std::move(stored.userId));
    row.set("uid", std::move(stored.device));
    row.set("user_phone", std::move(stored.userPhone));
    row.set("velin", std::move(stored.velin));
    row.set("version", std::move(stored.version));
    if (std::optional<Value> report = serial::parseJson(stored.report)) {
      row.set("report", std::move(*report));
    } else {
      row.set("report", Value());
    }
    out.push_back(serial::toJson(Value(std::move(row))));
  }
  return out;
}

std::string uploadDigest(const std::string& logData) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(logData.data(), logData.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    return "";
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

}  // namespace qxlog::collector
