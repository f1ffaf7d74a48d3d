#include "collector/store/SqliteStore.h"

#include <sqlite3.h>

#include <condition_variable>
#include <mutex>
#include <unordered_map>

#include "collector/store/SqlStore.h"

namespace qxlog::collector {
namespace {

// Version 1 is the collector's first schema, which older databases hold
// without a version; every statement of it is therefore conditional.
const SchemaSteps kSteps = {
    {
        R"(CREATE TABLE IF NOT EXISTS uploads (
  id INTEGER PRIMARY KEY,
  received_at INTEGER NOT NULL,
  peer TEXT NOT NULL,
  token TEXT NOT NULL,
  device TEXT NOT NULL,
  user_id TEXT NOT NULL,
  header TEXT NOT NULL,
  record_count INTEGER NOT NULL))",
        R"(CREATE TABLE IF NOT EXISTS records (
  id INTEGER PRIMARY KEY,
  upload_id INTEGER NOT NULL REFERENCES uploads(id),
  position INTEGER NOT NULL,
  type TEXT NOT NULL,
  name TEXT NOT NULL,
  play_actions INTEGER NOT NULL,
  body TEXT NOT NULL))",
        "CREATE INDEX IF NOT EXISTS records_by_type ON records(type)",
        R"(CREATE TABLE IF NOT EXISTS upload_digests (
  digest TEXT PRIMARY KEY,
  upload_id INTEGER NOT NULL REFERENCES uploads(id),
  replays INTEGER NOT NULL DEFAULT 0))",
        R"(CREATE TABLE IF NOT EXISTS diagnoses (
  id INTEGER PRIMARY KEY,
  received_at INTEGER NOT NULL,
  peer TEXT NOT NULL,
  token TEXT NOT NULL,
  user_id TEXT NOT NULL,
  device TEXT NOT NULL,
  user_phone TEXT NOT NULL,
  velin TEXT NOT NULL,
  version TEXT NOT NULL,
  report TEXT NOT NULL))",
    },
    {
        "ALTER TABLE diagnoses ADD COLUMN play_summary INTEGER NOT NULL DEFAULT 0",
        "UPDATE diagnoses SET play_summary = 1 "
        "WHERE json_extract(report, '$.play_summary') IS NOT NULL",
        "CREATE TABLE settings_requests (device TEXT PRIMARY KEY, requests INTEGER NOT NULL)",
        "CREATE INDEX records_by_upload ON records(upload_id)",
        "CREATE INDEX records_by_name ON records(name)",
        "CREATE INDEX records_with_plays ON records(id) WHERE play_actions > 0",
        "CREATE INDEX uploads_by_time ON uploads(received_at)",
        "CREATE INDEX uploads_by_device ON uploads(device, received_at)",
        "CREATE INDEX diagnoses_by_device ON diagnoses(device)",
        "CREATE INDEX diagnoses_with_summary ON diagnoses(id) WHERE play_summary = 1",
    },
};

// Statements kept prepared per session; beyond this many, one-off.
constexpr std::size_t kPreparedStatements = 64;

// The turn to write among this process's sessions: writers queue here, not
// in SQLite's busy handler, which polls with sleeps.
class WriterTurn {
 public:
  bool take(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    if (!free_.wait_for(lock, wait, [&] { return !taken_; })) return false;
    taken_ = true;
    return true;
  }
  void give() {
    {
      std::lock_guard lock(mutex_);
      taken_ = false;
    }
    free_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable free_;
  bool taken_ = false;
};

struct Shared {
  std::string path;
  StoreOptions options;
  WriterTurn writer;  // the one writer of this process
};

class SqliteSession final : public SqlSession {
 public:
  static std::unique_ptr<SqliteSession> open(const std::shared_ptr<Shared>& shared) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(shared->path.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
      std::string reason = db ? sqlite3_errmsg(db) : "cannot open";
      sqlite3_close(db);
      throw StoreError(false, shared->path + ": " + reason);
    }
    std::unique_ptr<SqliteSession> session(new SqliteSession(shared, db));
    sqlite3_busy_timeout(db, static_cast<int>(shared->options.wait.count()));
    session->exec("PRAGMA journal_mode = WAL");
    session->exec("PRAGMA foreign_keys = ON");
    // LIKE matches case as on PostgreSQL: a title filter "Film-1" keeps
    // "Film-1" alone, not "film-1".
    session->exec("PRAGMA case_sensitive_like = ON");
    return session;
  }

  ~SqliteSession() override {
    statements_.clear();
    sqlite3_close(db_);
  }

  std::vector<SqlRow> run(const std::string& sql, const std::vector<SqlParam>& params) override {
    sqlite3_stmt* statement = prepared(sql);
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> oneOff(
        statements_.count(sql) ? nullptr : statement, sqlite3_finalize);
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    for (std::size_t i = 0; i < params.size(); ++i) {
      const int index =
          sqlite3_bind_parameter_index(statement, ("$" + std::to_string(i + 1)).c_str());
      if (index == 0) continue;
      if (const auto* text = std::get_if<std::string>(&params[i])) {
        sqlite3_bind_text(statement, index, text->data(), static_cast<int>(text->size()),
                          SQLITE_TRANSIENT);
      } else if (const auto* value = std::get_if<int64_t>(&params[i])) {
        sqlite3_bind_int64(statement, index, *value);
      } else {
        sqlite3_bind_null(statement, index);
      }
    }
    std::vector<SqlRow> rows;
    const int columns = sqlite3_column_count(statement);
    int step;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
      SqlRow& row = rows.emplace_back();
      row.reserve(static_cast<std::size_t>(columns));
      for (int i = 0; i < columns; ++i) {
        const auto* text = sqlite3_column_text(statement, i);
        row.emplace_back(
            text ? std::string(reinterpret_cast<const char*>(text),
                               static_cast<std::size_t>(sqlite3_column_bytes(statement, i)))
                 : std::string());
      }
    }
    if (step != SQLITE_DONE) {
      const int code = sqlite3_errcode(db_);
      sqlite3_reset(statement);
      fail(code);
    }
    sqlite3_reset(statement);
    return rows;
  }

  void begin() override {
    if (!shared_->writer.take(shared_->options.wait)) {
      throw StoreError(true, "database busy: no turn to write within " +
                                 std::to_string(shared_->options.wait.count()) + " ms");
    }
    writing_ = true;
    try {
      exec("BEGIN IMMEDIATE");
    } catch (...) {
      endTurn();
      throw;
    }
  }

  void commit() override {
    exec("COMMIT");
    endTurn();
  }

  void rollback() noexcept override {
    if (!sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    endTurn();
  }

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  SqliteSession(std::shared_ptr<Shared> shared, sqlite3* db)
      : shared_(std::move(shared)), db_(db) {}

  void endTurn() noexcept {
    if (writing_) shared_->writer.give();
    writing_ = false;
  }

  [[noreturn]] void fail(int code) {
    const int primary = code & 0xff;
    const bool busy = primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
    throw StoreError(busy,
                     (busy ? "database busy: " : "") + shared_->path + ": " + sqlite3_errmsg(db_));
  }

  void exec(const char* sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(sqlite3_errcode(db_));
  }

  sqlite3_stmt* prepared(const std::string& sql) {
    if (auto it = statements_.find(sql); it != statements_.end()) return it->second.get();
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size()), &statement, nullptr) !=
        SQLITE_OK) {
      sqlite3_finalize(statement);
      fail(sqlite3_errcode(db_));
    }
    if (statements_.size() < kPreparedStatements) statements_.emplace(sql, statement);
    return statement;
  }

  std::shared_ptr<Shared> shared_;
  sqlite3* db_;
  bool writing_ = false;  // holds the process's turn to write
  std::unordered_map<std::string, std::unique_ptr<sqlite3_stmt, Finalize>> statements_;
};

}  // namespace

std::unique_ptr<CollectorStore> openSqliteStore(const std::string& path,
                                                const StoreOptions& options, std::string& error) {
  try {
    auto shared = std::make_shared<Shared>();
    shared->path = path;
    shared->options = options;
    return std::make_unique<SqlStore>(
        options, [shared]() -> std::unique_ptr<SqlSession> { return SqliteSession::open(shared); },
        SqliteSession::open(shared), kSteps, "");
  } catch (const StoreError& failure) {
    error = failure.what();
    if (error.rfind(path, 0) != 0) error = path + ": " + error;
    return nullptr;
  }
}

}  // namespace qxlog::collector
