// The collector's store on an SQL database: every query of CollectorStore as
// SQL that SQLite and PostgreSQL both read, run on a small pool of sessions
// (one per thread that calls in). Where the two databases differ (types,
// locking, timeouts, errors) the session and its schema steps say so.
#ifndef QXLOG_COLLECTOR_STORE_SQLSTORE_H_
#define QXLOG_COLLECTOR_STORE_SQLSTORE_H_

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "collector/store/CollectorStore.h"
#include "collector/store/SqlSession.h"

namespace qxlog::collector {

// The schema, version by version: step i (from 1) holds the statements that
// take a database from version i - 1 to i.
using SchemaSteps = std::vector<std::vector<std::string>>;

class SqlStore : public CollectorStore {
 public:
  using SessionFactory = std::function<std::unique_ptr<SqlSession>()>;

  // `first` is a session of the factory's, kept in the pool. Throws
  // StoreError when the database's schema cannot be brought to this
  // version; `lock` (may be empty) is run first in the migration's
  // transaction, so that collectors starting at once migrate one at a time.
  SqlStore(StoreOptions options, SessionFactory factory, std::unique_ptr<SqlSession> first,
           const SchemaSteps& steps, const std::string& lock);

  using CollectorStore::delivered;
  using CollectorStore::records;

  UploadOutcome storeUpload(const UploadRow& upload) override;
  int64_t storeDiagnosis(const DiagnosisRow& diagnosis) override;
  void countSettingsRequest(const std::string& device) override;
  int64_t settingsRequests(const std::string& device) override;
  std::vector<StoredRecord> records(const std::optional<std::string>& type) override;
  Delivered delivered(const std::optional<std::string>& device) override;
  StoreTotals totals() override;
  std::vector<NamedCount> recordsPerName() override;
  std::vector<DeviceSeen> devices(std::size_t limit) override;
  std::vector<MinuteCount> perMinute(std::size_t minutes) override;
  using CollectorStore::latestDiagnoses;
  using CollectorStore::latestRecords;
  std::vector<StoredRecord> latestRecords(std::size_t limit, bool playsOnly,
                                          const StoreFilter& filter) override;
  std::vector<StoredDiagnosis> latestDiagnoses(std::size_t limit, bool playSummaries,
                                               const StoreFilter& filter) override;
  std::vector<StoredDiagnosis> allDiagnoses() override;

 private:
  // A session taken from the pool for one call, given back after it.
  class Lease {
   public:
    Lease(SqlStore& store, std::unique_ptr<SqlSession> session)
        : store_(store), session_(std::move(session)) {}
    ~Lease() { store_.giveBack(std::move(session_)); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    SqlSession* operator->() const { return session_.get(); }
    SqlSession& operator*() const { return *session_; }

   private:
    SqlStore& store_;
    std::unique_ptr<SqlSession> session_;
  };

  Lease lease();
  void giveBack(std::unique_ptr<SqlSession> session);

  StoreOptions options_;
  SessionFactory factory_;
  std::mutex mutex_;
  std::condition_variable returned_;
  std::vector<std::unique_ptr<SqlSession>> idle_;
  std::size_t opened_ = 0;
};

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_STORE_SQLSTORE_H_
