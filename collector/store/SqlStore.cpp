#include "collector/store/SqlStore.h"

#include <algorithm>
#include <charconv>

#include "QXLog/serial/Json.h"

namespace qxlog::collector {
namespace {

// Records are inserted this many to a statement: one round trip for a
// typical upload, and well under either database's limit on parameters.
constexpr std::size_t kRecordsPerInsert = 500;
constexpr int kRecordColumns = 6;

int64_t number(const std::string& text) {
  int64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

int64_t firstNumber(const std::vector<SqlRow>& rows) {
  return rows.empty() || rows[0].empty() ? 0 : number(rows[0][0]);
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

bool hasPlaySummary(const Value& report) {
  return report.asDictionary() && report.asDictionary()->find("play_summary") != nullptr;
}

std::string recordInsert(std::size_t rows) {
  std::string sql =
      "INSERT INTO records (upload_id, position, type, name, play_actions, body) VALUES ";
  int parameter = 1;
  for (std::size_t row = 0; row < rows; ++row) {
    sql += row == 0 ? "(" : ", (";
    for (int column = 0; column < kRecordColumns; ++column) {
      sql += (column == 0 ? "$" : ", $") + std::to_string(parameter++);
    }
    sql += ")";
  }
  return sql;
}

constexpr const char* kRecordColumnsSelect =
    "SELECT r.id, r.upload_id, u.received_at, r.type, r.name, r.body, u.device "
    "FROM records r JOIN uploads u ON u.id = r.upload_id ";

std::vector<StoredRecord> toRecords(const std::vector<SqlRow>& rows) {
  std::vector<StoredRecord> out;
  out.reserve(rows.size());
  for (const SqlRow& row : rows) {
    out.push_back(StoredRecord{number(row[0]), number(row[1]), number(row[2]), row[3], row[4],
                               row[5], row[6]});
  }
  return out;
}

// The conditions of `filter` ("AND ..." each), their values appended to
// `params`. The title is matched as the text `"<titleKey>":"<title>"` in the
// compact JSON column `text` (LIKE, its wildcards escaped); without
// `titleKey` it is not applied.
std::string filterSql(const StoreFilter& filter, const char* receivedAt, const char* device,
                      const char* text, const char* titleKey, std::vector<SqlParam>& params) {
  std::string sql;
  auto add = [&](const std::string& condition, SqlParam value) {
    params.push_back(std::move(value));
    sql += "AND " + condition + " $" + std::to_string(params.size()) + " ";
  };
  if (filter.from) add(std::string(receivedAt) + " >=", *filter.from);
  if (filter.to) add(std::string(receivedAt) + " <", *filter.to);
  if (filter.device) add(std::string(device) + " =", *filter.device);
  if (filter.title && titleKey != nullptr) {
    std::string pattern = "%";
    for (char c : serial::toJson(Value(std::string(titleKey))) + ":" +
                      serial::toJson(Value(*filter.title))) {
      if (c == '%' || c == '_' || c == '!') pattern += '!';
      pattern += c;
    }
    pattern += '%';
    params.emplace_back(std::in_place_type<std::string>, std::move(pattern));
    sql += "AND " + std::string(text) + " LIKE $" + std::to_string(params.size()) + " ESCAPE '!' ";
  }
  return sql;
}

constexpr const char* kDiagnosisColumnsSelect =
    "SELECT id, received_at, peer, user_id, device, user_phone, velin, version, report "
    "FROM diagnoses ";

std::vector<StoredDiagnosis> toDiagnoses(const std::vector<SqlRow>& rows) {
  std::vector<StoredDiagnosis> out;
  out.reserve(rows.size());
  for (const SqlRow& row : rows) {
    out.push_back(StoredDiagnosis{number(row[0]), number(row[1]), row[2], row[3], row[4], row[5],
                                  row[6], row[7], row[8]});
  }
  return out;
}

}  // namespace

SqlStore::SqlStore(StoreOptions options, SessionFactory factory, std::unique_ptr<SqlSession> first,
                   const SchemaSteps& steps, const std::string& lock)
    : options_(options), factory_(std::move(factory)) {
  options_.connections = std::max<std::size_t>(options_.connections, 1);
  {
    SqlTransaction migration(*first);
    if (!lock.empty()) first->run(lock);
    first->run("CREATE TABLE IF NOT EXISTS qxlog_schema (version INTEGER NOT NULL)");
    const int64_t version = firstNumber(first->run("SELECT max(version) FROM qxlog_schema"));
    const auto latest = static_cast<int64_t>(steps.size());
    if (version > latest) {
      throw StoreError(false, "the database's schema is version " + std::to_string(version) +
                                  ", newer than this collector's (" + std::to_string(latest) + ")");
    }
    if (version < latest) {
      for (auto step = static_cast<std::size_t>(version); step < steps.size(); ++step) {
        for (const std::string& statement : steps[step]) first->run(statement);
      }
      first->run("DELETE FROM qxlog_schema");
      first->run("INSERT INTO qxlog_schema (version) VALUES ($1)", {latest});
    }
    migration.commit();
  }
  idle_.push_back(std::move(first));
  opened_ = 1;
}

SqlStore::Lease SqlStore::lease() {
  std::unique_lock lock(mutex_);
  if (idle_.empty() && opened_ >= options_.connections &&
      !returned_.wait_for(lock, options_.wait, [&] { return !idle_.empty(); })) {
    throw StoreError(true, "no database connection free within " +
                               std::to_string(options_.wait.count()) + " ms");
  }
  if (!idle_.empty()) {
    std::unique_ptr<SqlSession> session = std::move(idle_.back());
    idle_.pop_back();
    return Lease(*this, std::move(session));
  }
  ++opened_;
  lock.unlock();
  try {
    return Lease(*this, factory_());
  } catch (...) {
    lock.lock();
    --opened_;
    returned_.notify_one();
    throw;
  }
}

void SqlStore::giveBack(std::unique_ptr<SqlSession> session) {
  std::lock_guard lock(mutex_);
  idle_.push_back(std::move(session));
  returned_.notify_one();
}

UploadOutcome SqlStore::storeUpload(const UploadRow& upload) {
  Lease session = lease();
  SqlTransaction transaction(*session);
  const int64_t id = firstNumber(session->run(
      "INSERT INTO uploads (received_at, peer, token, device, user_id, header, record_count) "
      "VALUES ($1, $2, $3, $4, $5, $6, $7) RETURNING id",
      {upload.receivedAt, upload.peer, upload.token, stringField(upload.header, "t_2"),
       stringField(upload.header, "t_12"), serial::toJson(Value(upload.header)),
       static_cast<int64_t>(upload.records.size())}));
  if (!upload.digest.empty()) {
    // The unique key decides: a concurrent transaction storing the same
    // upload makes this insert wait for it and then insert nothing.
    const bool first = !session
                            ->run(
                                "INSERT INTO upload_digests (digest, upload_id) VALUES ($1, $2) "
                                "ON CONFLICT (digest) DO NOTHING RETURNING upload_id",
                                {upload.digest, id})
                            .empty();
    if (!first) {
      transaction.rollback();
      SqlTransaction replay(*session);
      const std::vector<SqlRow> stored = session->run(
          "UPDATE upload_digests SET replays = replays + 1 WHERE digest = $1 "
          "RETURNING upload_id",
          {upload.digest});
      replay.commit();
      if (stored.empty()) throw StoreError(true, "a repeated upload's first copy is not stored");
      return UploadOutcome{firstNumber(stored), true};
    }
  }
  std::vector<SqlParam> params;
  for (std::size_t start = 0; start < upload.records.size(); start += kRecordsPerInsert) {
    const std::size_t count = std::min(kRecordsPerInsert, upload.records.size() - start);
    params.clear();
    params.reserve(count * kRecordColumns);
    for (std::size_t i = start; i < start + count; ++i) {
      static const Dictionary kEmpty;
      const Value& value = upload.records[i];
      const Dictionary& record = value.asDictionary() ? *value.asDictionary() : kEmpty;
      params.emplace_back(id);
      params.emplace_back(static_cast<int64_t>(i));
      params.emplace_back(stringField(record, "a_t"));
      params.emplace_back(recordTypeName(record));
      params.emplace_back(nonEmptyPlayActions(record));
      params.emplace_back(serial::toJson(value));
    }
    session->run(recordInsert(count), params);
  }
  transaction.commit();
  return UploadOutcome{id, false};
}

int64_t SqlStore::storeDiagnosis(const DiagnosisRow& diagnosis) {
  Lease session = lease();
  SqlTransaction transaction(*session);
  const int64_t id = firstNumber(session->run(
      "INSERT INTO diagnoses (received_at, peer, token, user_id, device, user_phone, velin, "
      "version, report, play_summary) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10) "
      "RETURNING id",
      {diagnosis.receivedAt, diagnosis.peer, diagnosis.token, diagnosis.userId, diagnosis.device,
       diagnosis.userPhone, diagnosis.velin, diagnosis.version, serial::toJson(diagnosis.report),
       int64_t{hasPlaySummary(diagnosis.report) ? 1 : 0}}));
  transaction.commit();
  return id;
}

void SqlStore::countSettingsRequest(const std::string& device) {
  Lease session = lease();
  SqlTransaction transaction(*session);
  session->run(
      "INSERT INTO settings_requests (device, requests) VALUES ($1, 1) ON CONFLICT (device) "
      "DO UPDATE SET requests = settings_requests.requests + 1",
      {device});
  transaction.commit();
}

int64_t SqlStore::settingsRequests(const std::string& device) {
  Lease session = lease();
  return firstNumber(
      session->run("SELECT requests FROM settings_requests WHERE device = $1", {device}));
}

std::vector<StoredRecord> SqlStore::records(const std::optional<std::string>& type) {
  Lease session = lease();
  if (type) {
    return toRecords(session->run(
        std::string(kRecordColumnsSelect) + "WHERE r.type = $1 ORDER BY r.id", {*type}));
  }
  return toRecords(session->run(std::string(kRecordColumnsSelect) + "ORDER BY r.id"));
}

Delivered SqlStore::delivered(const std::optional<std::string>& device) {
  Lease session = lease();
  // Each query in two forms, for one device and for all, so that either
  // uses its index.
  auto query = [&](const char* all, const char* one) {
    return device ? session->run(one, {*device}) : session->run(all);
  };
  Delivered out;
  out.uploads = firstNumber(
      query("SELECT count(*) FROM uploads", "SELECT count(*) FROM uploads WHERE device = $1"));
  out.replays = firstNumber(query("SELECT coalesce(sum(replays), 0) FROM upload_digests",
                                  "SELECT coalesce(sum(d.replays), 0) FROM upload_digests d "
                                  "JOIN uploads u ON u.id = d.upload_id WHERE u.device = $1"));
  out.diagnoses = firstNumber(
      query("SELECT count(*) FROM diagnoses", "SELECT count(*) FROM diagnoses WHERE device = $1"));
  for (const SqlRow& row :
       query("SELECT type, count(*), coalesce(sum(play_actions), 0) FROM records GROUP BY type",
             "SELECT r.type, count(*), coalesce(sum(r.play_actions), 0) FROM records r "
             "JOIN uploads u ON u.id = r.upload_id WHERE u.device = $1 GROUP BY r.type")) {
    out.records[row[0]] = number(row[1]);
    if (const int64_t actions = number(row[2]); actions > 0) out.playActions[row[0]] = actions;
  }
  return out;
}

StoreTotals SqlStore::totals() {
  Lease session = lease();
  const std::vector<SqlRow> rows = session->run(
      "SELECT count(*), coalesce(sum(record_count), 0), (SELECT count(*) FROM diagnoses), "
      "(SELECT coalesce(sum(replays), 0) FROM upload_digests) FROM uploads");
  if (rows.empty()) return {};
  return StoreTotals{number(rows[0][0]), number(rows[0][1]), number(rows[0][2]),
                     number(rows[0][3])};
}

std::vector<NamedCount> SqlStore::recordsPerName() {
  Lease session = lease();
  std::vector<NamedCount> out;
  // Names come from what clients send: the 100 most frequent bound the answer.
  for (const SqlRow& row : session->run("SELECT name, count(*) FROM records GROUP BY name "
                                        "ORDER BY count(*) DESC, name LIMIT 100")) {
    out.push_back(NamedCount{row[0], number(row[1])});
  }
  return out;
}

std::vector<DeviceSeen> SqlStore::devices(std::size_t limit) {
  Lease session = lease();
  std::vector<DeviceSeen> out;
  for (const SqlRow& row :
       session->run("SELECT device, count(*), max(received_at) FROM uploads GROUP BY device "
                    "ORDER BY 3 DESC, device LIMIT $1",
                    {static_cast<int64_t>(limit)})) {
    out.push_back(DeviceSeen{row[0], number(row[1]), number(row[2])});
  }
  return out;
}

std::vector<MinuteCount> SqlStore::perMinute(std::size_t minutes) {
  Lease session = lease();
  const std::vector<SqlRow> latest = session->run("SELECT max(received_at) FROM uploads");
  if (latest.empty() || latest[0][0].empty() || minutes == 0) return {};
  const int64_t since = (number(latest[0][0]) / 60000 - static_cast<int64_t>(minutes) + 1) * 60000;
  std::vector<MinuteCount> out;
  for (const SqlRow& row :
       session->run("SELECT received_at / 60000 * 60000 AS minute, count(*), sum(record_count) "
                    "FROM uploads WHERE received_at >= $1 GROUP BY minute ORDER BY minute",
                    {since})) {
    out.push_back(MinuteCount{number(row[0]), number(row[1]), number(row[2])});
  }
  return out;
}

std::vector<StoredRecord> SqlStore::latestRecords(std::size_t limit, bool playsOnly,
                                                  const StoreFilter& filter) {
  std::vector<SqlParam> params = {static_cast<int64_t>(limit)};
  std::string where = std::string("WHERE 1 = 1 ") + (playsOnly ? "AND r.play_actions > 0 " : "") +
                      filterSql(filter, "u.received_at", "u.device", "r.body", "a_7", params);
  Lease session = lease();
  return toRecords(session->run(
      std::string(kRecordColumnsSelect) + where + "ORDER BY r.id DESC LIMIT $1", params));
}

std::vector<StoredDiagnosis> SqlStore::latestDiagnoses(std::size_t limit, bool playSummaries,
                                                       const StoreFilter& filter) {
  std::vector<SqlParam> params = {static_cast<int64_t>(limit)};
  std::string where = std::string("WHERE 1 = 1 ") + (playSummaries ? "AND play_summary = 1 " : "") +
                      filterSql(filter, "received_at", "device", "report",
                                playSummaries ? "movie_id" : nullptr, params);
  Lease session = lease();
  return toDiagnoses(session->run(
      std::string(kDiagnosisColumnsSelect) + where + "ORDER BY id DESC LIMIT $1", params));
}

std::vector<StoredDiagnosis> SqlStore::allDiagnoses() {
  Lease session = lease();
  return toDiagnoses(session->run(std::string(kDiagnosisColumnsSelect) + "ORDER BY id"));
}

}  // namespace qxlog::collector
