// One connection to the collector's database, as SqlStore uses it: statements
// with numbered parameters ($1, $2, ...) and a write transaction around the
// ones that change anything. SQLite and PostgreSQL each provide one.
#ifndef QXLOG_COLLECTOR_STORE_SQLSESSION_H_
#define QXLOG_COLLECTOR_STORE_SQLSESSION_H_

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace qxlog::collector {

using SqlParam = std::variant<std::monostate, int64_t, std::string>;
using SqlRow = std::vector<std::string>;  // each column as text, "" for NULL

class SqlSession {
 public:
  virtual ~SqlSession() = default;

  // Runs one statement and returns its rows. Throws StoreError, busy() when
  // the database stayed locked, slow or unreachable past the bounded wait.
  virtual std::vector<SqlRow> run(const std::string& sql,
                                  const std::vector<SqlParam>& params = {}) = 0;
  // A write transaction: begin() waits (boundedly) until this session may
  // write, so that writers queue instead of failing each other.
  virtual void begin() = 0;
  virtual void commit() = 0;
  virtual void rollback() noexcept = 0;
};

// Rolls back on destruction unless committed.
class SqlTransaction {
 public:
  explicit SqlTransaction(SqlSession& session) : session_(session) { session_.begin(); }
  ~SqlTransaction() {
    if (!done_) session_.rollback();
  }
  SqlTransaction(const SqlTransaction&) = delete;
  SqlTransaction& operator=(const SqlTransaction&) = delete;

  void commit() {
    session_.commit();
    done_ = true;
  }
  void rollback() {
    session_.rollback();
    done_ = true;
  }

 private:
  SqlSession& session_;
  bool done_ = false;
};

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_STORE_SQLSESSION_H_
