// The collector's SQLite database: one row per accepted upload, one per record
// of an upload, one per diagnosis. Each upload is written in one transaction,
// so a reader never sees part of one.
//
//   uploads(id, received_at, peer, token, device, user_id, header, record_count)
//   records(id, upload_id, position, type, name, play_actions, body)
//   diagnoses(id, received_at, peer, token, user_id, device, user_phone, velin,
//             version, report)
//   upload_digests(digest, upload_id, replays)
//
// "digest" identifies an upload by its token and "log_data" (SHA-256, hex):
// a repeat of a stored upload is counted in "replays" instead of stored.
// "header", "body" and "report" hold compact JSON; "received_at" is
// milliseconds since 1970; "device" is the device id (the header's "t_2", the
// diagnosis's "uid"); "play_actions" counts the non-empty play actions folded
// under a play header's "p".
#ifndef QXLOG_COLLECTOR_STORE_COLLECTORSTORE_H_
#define QXLOG_COLLECTOR_STORE_COLLECTORSTORE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QXLog/QXLogValue.h"

struct sqlite3;

namespace qxlog::collector {

struct UploadRow {
  int64_t receivedAt = 0;
  std::string peer;
  std::string token;
  std::string digest;  // uploadDigest of its token and log_data; "" for none
  Dictionary header;
  Array records;  // dictionaries
};

struct DiagnosisRow {
  int64_t receivedAt = 0;
  std::string peer;
  std::string token;
  std::string userId;
  std::string device;
  std::string userPhone;
  std::string velin;
  std::string version;
  Value report;
};

struct StoredRecord {
  int64_t id = 0;
  int64_t uploadId = 0;
  int64_t receivedAt = 0;
  std::string type;
  std::string name;
  std::string body;  // compact JSON
};

// What a device has delivered: records per "a_t", non-empty play actions per
// video type, diagnoses and uploads.
struct Delivered {
  int64_t uploads = 0;
  int64_t replays = 0;  // uploads answered again but not stored again
  int64_t diagnoses = 0;
  std::map<std::string, int64_t> records;
  std::map<std::string, int64_t> playActions;
};

// SHA-256 in hex of the token and the log_data, which identify an upload.
std::string uploadDigest(const std::string& token, const std::string& logData);

class CollectorStore {
 public:
  // When an upload with this token and log_data is stored already: counts
  // the replay and returns the stored upload's id.
  std::optional<int64_t> recordReplay(const std::string& token, const std::string& logData);
  // Opens or creates the database and its tables. Nothing on failure, with
  // the reason in `error`.
  static std::unique_ptr<CollectorStore> open(const std::string& path, std::string& error);
  ~CollectorStore();
  CollectorStore(const CollectorStore&) = delete;
  CollectorStore& operator=(const CollectorStore&) = delete;

  // The new row's id, or nothing (with the reason in `error`) when the
  // transaction failed and was rolled back.
  std::optional<int64_t> addUpload(const UploadRow& upload, std::string& error);
  std::optional<int64_t> addDiagnosis(const DiagnosisRow& diagnosis, std::string& error);

  // Records in arrival order; `type` filters on "a_t" when given.
  std::vector<StoredRecord> records(const std::optional<std::string>& type = std::nullopt);
  // Diagnoses in arrival order, as compact JSON of the whole row.
  std::vector<std::string> diagnoses();
  // The rows of a read-only query, each column as text ("" for NULL).
  std::vector<std::vector<std::string>> rows(const std::string& sql);
  // Totals, for one device when `device` is given.
  Delivered delivered(const std::optional<std::string>& device = std::nullopt);

 private:
  explicit CollectorStore(sqlite3* db) : db_(db) {}
  bool exec(const char* sql, std::string& error);

  std::mutex mutex_;
  sqlite3* db_;
};

// The printable name of a record's type: "launch", "action", "download",
// "network", "film play", "short video play", "channel play", or "type X".
std::string recordTypeName(const Dictionary& record);
// Whether a record is a play header (it carries its video type in "a_t").
bool isPlayHeader(const Dictionary& record);
// Accepts a type code ("2") or a name ("action", "film", "short", "channel",
// "launch", "download", "network"); nothing for an unknown name.
std::optional<std::string> recordTypeCode(const std::string& nameOrCode);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_STORE_COLLECTORSTORE_H_
