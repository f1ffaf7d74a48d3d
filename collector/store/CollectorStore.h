// The collector's store: one row per accepted upload, one per record of an
// upload, one per diagnosis, and the settings requests counted per device.
// Each upload is written in one transaction, so a reader never sees part of
// one. Two implementations: SQLite, the embedded default (a file), and
// PostgreSQL (a libpq connection URI), which several collectors can share.
//
//   uploads(id, received_at, peer, token, device, user_id, header, record_count)
//   records(id, upload_id, position, type, name, play_actions, body)
//   diagnoses(id, received_at, peer, token, user_id, device, user_phone, velin,
//             version, report, play_summary)
//   upload_digests(digest, upload_id, replays)
//   settings_requests(device, requests)
//   qxlog_schema(version)
//
// "digest" identifies an upload by its sealed "log_data" (SHA-256, hex): a
// repeat of a stored upload, on any day and through any collector on the
// same database, is counted in "replays" instead of stored. The check is the
// upload's own transaction (a unique key), so repeats that arrive at once are
// stored once. "header", "body" and "report" hold compact JSON;
// "received_at" is milliseconds since 1970; "device" is the device id (the
// header's "t_2", the diagnosis's "uid"); "play_actions" counts the
// non-empty play actions folded under a play header's "p"; "play_summary" is
// 1 when the report carries a player's end-of-play summary.
//
// Every call may wait for the database, but only up to StoreOptions::wait;
// past it, and on any other failure, it throws StoreError. Calls are safe
// from any number of threads: each takes one of the store's connections.
#ifndef QXLOG_COLLECTOR_STORE_COLLECTORSTORE_H_
#define QXLOG_COLLECTOR_STORE_COLLECTORSTORE_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "QXLog/QXLogValue.h"

namespace qxlog::collector {

struct UploadRow {
  int64_t receivedAt = 0;
  std::string peer;
  std::string token;
  std::string digest;  // uploadDigest of its log_data; "" for none
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
  std::string device;
};

struct StoredDiagnosis {
  int64_t id = 0;
  int64_t receivedAt = 0;
  std::string peer;
  std::string userId;
  std::string device;
  std::string userPhone;
  std::string velin;
  std::string version;
  std::string report;  // compact JSON
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

// The dashboard's figures.
struct StoreTotals {
  int64_t uploads = 0;
  int64_t records = 0;
  int64_t diagnoses = 0;
  int64_t replays = 0;
};
struct NamedCount {
  std::string name;
  int64_t count = 0;
};
struct DeviceSeen {
  std::string device;
  int64_t uploads = 0;
  int64_t lastSeen = 0;  // received_at of its latest upload
};
struct MinuteCount {
  int64_t minute = 0;  // milliseconds since 1970, a multiple of 60000
  int64_t uploads = 0;
  int64_t records = 0;
};

// What the dashboard's answers are limited to; each part applies when given.
// `from` and `to` bound "received_at" (ms since 1970, `from` included, `to`
// not); `device` is the device id; `title` a movie id (a play header's
// "a_7", a summary's "movie_id").
struct StoreFilter {
  std::optional<int64_t> from;
  std::optional<int64_t> to;
  std::optional<std::string> device;
  std::optional<std::string> title;
};

// One title's plays, from their end-of-play summaries. Startup percentiles
// (nearest rank) are over the plays that reached a first frame; the
// rebuffering ratio is rebuffering time over played plus rebuffering time;
// the average bitrate is weighted by the time played (plays that reported
// none are left out), 0 when none reported one.
struct TitleQuality {
  std::string movieId;
  int64_t plays = 0;
  int64_t startupP50 = 0;
  int64_t startupP95 = 0;
  double rebufferRatio = 0;
  double failureRate = 0;
  int64_t failures = 0;
  int64_t exitsBeforeStart = 0;
  int64_t averageBitrate = 0;
};

// The outcome of storing an upload: its id, or, for a repeat, the id of the
// upload it repeats.
struct UploadOutcome {
  int64_t id = 0;
  bool replay = false;
};

// A store call that failed. busy(): the database stayed locked, slow or
// unreachable past the bounded wait, and the same call may succeed soon.
class StoreError : public std::runtime_error {
 public:
  StoreError(bool busy, const std::string& what) : std::runtime_error(what), busy_(busy) {}
  bool busy() const { return busy_; }

 private:
  bool busy_;
};

struct StoreOptions {
  // The longest a call waits for a connection, a lock or a statement.
  std::chrono::milliseconds wait{2000};
  // Connections held at most: one per thread that serves requests.
  std::size_t connections = 4;
};

// SHA-256 in hex of an upload's sealed log_data, which identifies it.
std::string uploadDigest(const std::string& logData);

class CollectorStore {
 public:
  // Opens the store at `location`: a "postgresql://" or "postgres://" URI
  // names a PostgreSQL database, anything else an SQLite file. Creates or
  // migrates the tables. Nothing on failure, with the reason in `error`.
  static std::unique_ptr<CollectorStore> open(const std::string& location, std::string& error);
  static std::unique_ptr<CollectorStore> open(const std::string& location,
                                              const StoreOptions& options, std::string& error);
  static bool isPostgresLocation(const std::string& location);
  // The schema version this build creates and migrates to.
  static constexpr int kSchemaVersion = 2;

  virtual ~CollectorStore() = default;

  // Stores an upload, or counts it as a replay when one with the same
  // digest is stored already.
  virtual UploadOutcome storeUpload(const UploadRow& upload) = 0;
  virtual int64_t storeDiagnosis(const DiagnosisRow& diagnosis) = 0;
  // Counts one settings request of `device`; the count is kept in the store.
  virtual void countSettingsRequest(const std::string& device) = 0;
  virtual int64_t settingsRequests(const std::string& device) = 0;

  // storeUpload and storeDiagnosis without exceptions: the id, or nothing
  // with the reason in `error`.
  std::optional<int64_t> addUpload(const UploadRow& upload, std::string& error);
  std::optional<int64_t> addDiagnosis(const DiagnosisRow& diagnosis, std::string& error);

  // Records in arrival order; `type` filters on "a_t" when given.
  virtual std::vector<StoredRecord> records(const std::optional<std::string>& type) = 0;
  std::vector<StoredRecord> records() { return records(std::nullopt); }
  // Diagnoses in arrival order, each as compact JSON of the whole row.
  std::vector<std::string> diagnoses();
  // Totals, for one device when `device` is given.
  virtual Delivered delivered(const std::optional<std::string>& device) = 0;
  Delivered delivered() { return delivered(std::nullopt); }

  // The dashboard's queries.
  virtual StoreTotals totals() = 0;
  // Records per printable type name, most first, at most 100 names.
  virtual std::vector<NamedCount> recordsPerName() = 0;
  // The devices seen latest first, at most `limit`.
  virtual std::vector<DeviceSeen> devices(std::size_t limit) = 0;
  // Uploads and records per minute over the `minutes` minutes up to the
  // latest upload, oldest first; minutes without uploads are left out.
  virtual std::vector<MinuteCount> perMinute(std::size_t minutes) = 0;
  // The latest records within `filter`, newest first; with `playsOnly`
  // those with play actions.
  virtual std::vector<StoredRecord> latestRecords(std::size_t limit, bool playsOnly,
                                                  const StoreFilter& filter) = 0;
  std::vector<StoredRecord> latestRecords(std::size_t limit, bool playsOnly) {
    return latestRecords(limit, playsOnly, {});
  }
  // The latest diagnoses within `filter`, newest first; with
  // `playSummaries` those whose report holds an end-of-play summary (the
  // title then filters on its "movie_id"; it is ignored otherwise).
  virtual std::vector<StoredDiagnosis> latestDiagnoses(std::size_t limit, bool playSummaries,
                                                       const StoreFilter& filter) = 0;
  std::vector<StoredDiagnosis> latestDiagnoses(std::size_t limit, bool playSummaries) {
    return latestDiagnoses(limit, playSummaries, {});
  }
  // Per movie id over the latest `summaries` end-of-play summaries within
  // `filter`: the `titles` titles with the most plays, most first (ties by
  // movie id).
  std::vector<TitleQuality> titles(const StoreFilter& filter, std::size_t summaries,
                                   std::size_t titles);
  // Failed plays per cause ("" when none was given) over the latest
  // `summaries` summaries within `filter`, most first, at most `causes`.
  std::vector<NamedCount> failures(const StoreFilter& filter, std::size_t summaries,
                                   std::size_t causes);
  // Every diagnosis in arrival order.
  virtual std::vector<StoredDiagnosis> allDiagnoses() = 0;
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
