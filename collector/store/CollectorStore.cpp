#include "collector/store/CollectorStore.h"

#include <openssl/evp.h>
#include <sqlite3.h>

#include <utility>

#include "QXLog/serial/Json.h"

namespace qxlog::collector {
namespace {

constexpr const char* kSchema = R"sql(
PRAGMA journal_mode = WAL;
PRAGMA foreign_keys = ON;
CREATE TABLE IF NOT EXISTS uploads (
  id INTEGER PRIMARY KEY,
  received_at INTEGER NOT NULL,
  peer TEXT NOT NULL,
  token TEXT NOT NULL,
  device TEXT NOT NULL,
  user_id TEXT NOT NULL,
  header TEXT NOT NULL,
  record_count INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS records (
  id INTEGER PRIMARY KEY,
  upload_id INTEGER NOT NULL REFERENCES uploads(id),
  position INTEGER NOT NULL,
  type TEXT NOT NULL,
  name TEXT NOT NULL,
  play_actions INTEGER NOT NULL,
  body TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS records_by_type ON records(type);
CREATE TABLE IF NOT EXISTS upload_digests (
  digest TEXT PRIMARY KEY,
  upload_id INTEGER NOT NULL REFERENCES uploads(id),
  replays INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE IF NOT EXISTS diagnoses (
  id INTEGER PRIMARY KEY,
  received_at INTEGER NOT NULL,
  peer TEXT NOT NULL,
  token TEXT NOT NULL,
  user_id TEXT NOT NULL,
  device TEXT NOT NULL,
  user_phone TEXT NOT NULL,
  velin TEXT NOT NULL,
  version TEXT NOT NULL,
  report TEXT NOT NULL
);
)sql";

struct StatementFinalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementFinalize>;

Statement prepare(sqlite3* db, const char* sql, std::string& error) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) {
    error = sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    return nullptr;
  }
  return Statement(statement);
}

void bindText(sqlite3_stmt* statement, int index, const std::string& text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

std::string columnText(sqlite3_stmt* statement, int index) {
  const auto* text = sqlite3_column_text(statement, index);
  return text ? std::string(reinterpret_cast<const char*>(text),
                            static_cast<std::size_t>(sqlite3_column_bytes(statement, index)))
              : std::string();
}

std::string stringField(const Dictionary& dictionary, const char* key) {
  const Value* value = dictionary.find(key);
  return value && value->asString() ? *value->asString() : std::string();
}

int64_t nonEmptyPlayActions(const Dictionary& record) {
  const Value* actions = record.find("p");
  if (!actions || !actions->asArray()) return 0;
  int64_t count = 0;
  for (const Value& action : *actions->asArray()) {
    if (action.asDictionary() && !action.asDictionary()->empty()) ++count;
  }
  return count;
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

std::unique_ptr<CollectorStore> CollectorStore::open(const std::string& path, std::string& error) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    error = path + ": " + (db ? sqlite3_errmsg(db) : "cannot open");
    sqlite3_close(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, 5000);
  std::unique_ptr<CollectorStore> store(new CollectorStore(db));
  if (!store->exec(kSchema, error)) {
    error = path + ": " + error;
    return nullptr;
  }
  return store;
}

CollectorStore::~CollectorStore() {
  sqlite3_close(db_);
}

bool CollectorStore::exec(const char* sql, std::string& error) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    error = message ? message : sqlite3_errmsg(db_);
    sqlite3_free(message);
    return false;
  }
  return true;
}

std::optional<int64_t> CollectorStore::addUpload(const UploadRow& upload, std::string& error) {
  std::lock_guard lock(mutex_);
  if (!exec("BEGIN IMMEDIATE", error)) return std::nullopt;
  auto fail = [&]() -> std::optional<int64_t> {
    std::string ignored;
    exec("ROLLBACK", ignored);
    return std::nullopt;
  };
  Statement insertUpload = prepare(db_,
                                   "INSERT INTO uploads (received_at, peer, token, device, "
                                   "user_id, header, record_count) VALUES (?, ?, ?, ?, ?, ?, ?)",
                                   error);
  if (!insertUpload) return fail();
  sqlite3_bind_int64(insertUpload.get(), 1, upload.receivedAt);
  bindText(insertUpload.get(), 2, upload.peer);
  bindText(insertUpload.get(), 3, upload.token);
  bindText(insertUpload.get(), 4, stringField(upload.header, "t_2"));
  bindText(insertUpload.get(), 5, stringField(upload.header, "t_12"));
  bindText(insertUpload.get(), 6, serial::toJson(Value(upload.header)));
  sqlite3_bind_int64(insertUpload.get(), 7, static_cast<int64_t>(upload.records.size()));
  if (sqlite3_step(insertUpload.get()) != SQLITE_DONE) {
    error = sqlite3_errmsg(db_);
    return fail();
  }
  const int64_t uploadId = sqlite3_last_insert_rowid(db_);
  if (!upload.digest.empty()) {
    Statement insertDigest = prepare(
        db_, "INSERT OR IGNORE INTO upload_digests (digest, upload_id) VALUES (?, ?)", error);
    if (!insertDigest) return fail();
    bindText(insertDigest.get(), 1, upload.digest);
    sqlite3_bind_int64(insertDigest.get(), 2, uploadId);
    if (sqlite3_step(insertDigest.get()) != SQLITE_DONE) {
      error = sqlite3_errmsg(db_);
      return fail();
    }
  }

  Statement insertRecord = prepare(db_,
                                   "INSERT INTO records (upload_id, position, type, name, "
                                   "play_actions, body) VALUES (?, ?, ?, ?, ?, ?)",
                                   error);
  if (!insertRecord) return fail();
  int64_t position = 0;
  for (const Value& value : upload.records) {
    static const Dictionary kEmpty;
    const Dictionary& record = value.asDictionary() ? *value.asDictionary() : kEmpty;
    sqlite3_reset(insertRecord.get());
    sqlite3_bind_int64(insertRecord.get(), 1, uploadId);
    sqlite3_bind_int64(insertRecord.get(), 2, position++);
    bindText(insertRecord.get(), 3, stringField(record, "a_t"));
    bindText(insertRecord.get(), 4, recordTypeName(record));
    sqlite3_bind_int64(insertRecord.get(), 5, nonEmptyPlayActions(record));
    bindText(insertRecord.get(), 6, serial::toJson(value));
    if (sqlite3_step(insertRecord.get()) != SQLITE_DONE) {
      error = sqlite3_errmsg(db_);
      return fail();
    }
  }
  if (!exec("COMMIT", error)) return fail();
  return uploadId;
}

std::optional<int64_t> CollectorStore::addDiagnosis(const DiagnosisRow& diagnosis,
                                                    std::string& error) {
  std::lock_guard lock(mutex_);
  Statement insert = prepare(db_,
                             "INSERT INTO diagnoses (received_at, peer, token, user_id, device, "
                             "user_phone, velin, version, report) VALUES (?, ?, ?, ?, ?, ?, ?, ?, "
                             "?)",
                             error);
  if (!insert) return std::nullopt;
  sqlite3_bind_int64(insert.get(), 1, diagnosis.receivedAt);
  bindText(insert.get(), 2, diagnosis.peer);
  bindText(insert.get(), 3, diagnosis.token);
  bindText(insert.get(), 4, diagnosis.userId);
  bindText(insert.get(), 5, diagnosis.device);
  bindText(insert.get(), 6, diagnosis.userPhone);
  bindText(insert.get(), 7, diagnosis.velin);
  bindText(insert.get(), 8, diagnosis.version);
  bindText(insert.get(), 9, serial::toJson(diagnosis.report));
  if (sqlite3_step(insert.get()) != SQLITE_DONE) {
    error = sqlite3_errmsg(db_);
    return std::nullopt;
  }
  return sqlite3_last_insert_rowid(db_);
}

std::vector<StoredRecord> CollectorStore::records(const std::optional<std::string>& type) {
  std::lock_guard lock(mutex_);
  std::string error;
  Statement query = prepare(db_,
                            "SELECT r.id, r.upload_id, u.received_at, r.type, r.name, r.body "
                            "FROM records r JOIN uploads u ON u.id = r.upload_id "
                            "WHERE ?1 IS NULL OR r.type = ?1 ORDER BY r.id",
                            error);
  std::vector<StoredRecord> out;
  if (!query) return out;
  if (type) bindText(query.get(), 1, *type);
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    out.push_back(StoredRecord{sqlite3_column_int64(query.get(), 0),
                               sqlite3_column_int64(query.get(), 1),
                               sqlite3_column_int64(query.get(), 2), columnText(query.get(), 3),
                               columnText(query.get(), 4), columnText(query.get(), 5)});
  }
  return out;
}

std::vector<std::string> CollectorStore::diagnoses() {
  std::lock_guard lock(mutex_);
  std::string error;
  Statement query = prepare(db_,
                            "SELECT id, received_at, peer, user_id, device, user_phone, velin, "
                            "version, report FROM diagnoses ORDER BY id",
                            error);
  std::vector<std::string> out;
  if (!query) return out;
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    Dictionary row;
    row.set("id", Value(static_cast<int64_t>(sqlite3_column_int64(query.get(), 0))));
    row.set("received_at", Value(static_cast<int64_t>(sqlite3_column_int64(query.get(), 1))));
    row.set("peer", columnText(query.get(), 2));
    row.set("user_id", columnText(query.get(), 3));
    row.set("uid", columnText(query.get(), 4));
    row.set("user_phone", columnText(query.get(), 5));
    row.set("velin", columnText(query.get(), 6));
    row.set("version", columnText(query.get(), 7));
    row.set("report", serial::parseJson(columnText(query.get(), 8)).value_or(Value()));
    out.push_back(serial::toJson(Value(std::move(row))));
  }
  return out;
}

std::string uploadDigest(const std::string& token, const std::string& logData) {
  std::string identity = token + "\n" + logData;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(identity.data(), identity.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
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

std::optional<int64_t> CollectorStore::recordReplay(const std::string& token,
                                                    const std::string& logData) {
  std::lock_guard lock(mutex_);
  std::string error;
  Statement replay = prepare(
      db_, "UPDATE upload_digests SET replays = replays + 1 WHERE digest = ? RETURNING upload_id",
      error);
  if (!replay) return std::nullopt;
  bindText(replay.get(), 1, uploadDigest(token, logData));
  if (sqlite3_step(replay.get()) != SQLITE_ROW) return std::nullopt;
  return sqlite3_column_int64(replay.get(), 0);
}

std::vector<std::vector<std::string>> CollectorStore::rows(const std::string& sql) {
  std::lock_guard lock(mutex_);
  std::string error;
  std::vector<std::vector<std::string>> out;
  Statement query = prepare(db_, sql.c_str(), error);
  if (!query) return out;
  const int columns = sqlite3_column_count(query.get());
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    std::vector<std::string>& row = out.emplace_back();
    for (int i = 0; i < columns; ++i) row.push_back(columnText(query.get(), i));
  }
  return out;
}

Delivered CollectorStore::delivered(const std::optional<std::string>& device) {
  std::lock_guard lock(mutex_);
  std::string error;
  Delivered out;
  auto bindDevice = [&](sqlite3_stmt* statement) {
    if (device) bindText(statement, 1, *device);
  };
  if (Statement uploads =
          prepare(db_, "SELECT count(*) FROM uploads WHERE ?1 IS NULL OR device = ?1", error)) {
    bindDevice(uploads.get());
    if (sqlite3_step(uploads.get()) == SQLITE_ROW) {
      out.uploads = sqlite3_column_int64(uploads.get(), 0);
    }
  }
  if (Statement replays = prepare(db_,
                                  "SELECT coalesce(sum(d.replays), 0) FROM upload_digests d "
                                  "JOIN uploads u ON u.id = d.upload_id "
                                  "WHERE ?1 IS NULL OR u.device = ?1",
                                  error)) {
    bindDevice(replays.get());
    if (sqlite3_step(replays.get()) == SQLITE_ROW) {
      out.replays = sqlite3_column_int64(replays.get(), 0);
    }
  }
  if (Statement diagnoses =
          prepare(db_, "SELECT count(*) FROM diagnoses WHERE ?1 IS NULL OR device = ?1", error)) {
    bindDevice(diagnoses.get());
    if (sqlite3_step(diagnoses.get()) == SQLITE_ROW) {
      out.diagnoses = sqlite3_column_int64(diagnoses.get(), 0);
    }
  }
  if (Statement records = prepare(db_,
                                  "SELECT r.type, count(*), sum(r.play_actions) FROM records r "
                                  "JOIN uploads u ON u.id = r.upload_id "
                                  "WHERE ?1 IS NULL OR u.device = ?1 GROUP BY r.type",
                                  error)) {
    bindDevice(records.get());
    while (sqlite3_step(records.get()) == SQLITE_ROW) {
      const std::string type = columnText(records.get(), 0);
      out.records[type] = sqlite3_column_int64(records.get(), 1);
      if (const int64_t actions = sqlite3_column_int64(records.get(), 2); actions > 0) {
        out.playActions[type] = actions;
      }
    }
  }
  return out;
}

}  // namespace qxlog::collector
