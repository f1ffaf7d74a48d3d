#include "collector/store/CollectorStore.h"

#include <openssl/evp.h>

#include <algorithm>
#include <charconv>
#include <cmath>
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

namespace {

// A play's end-of-play summary as read from a stored report; nothing when
// the report holds none.
struct Summary {
  std::string movieId;
  std::string cause;
  int64_t startup = 0, rebufferMillis = 0, playedMillis = 0, bitrate = 0;
  bool failed = false, exitBeforeStart = false;
};

int64_t decimal(const Dictionary& fields, std::string_view key) {
  const Value* value = fields.find(key);
  const std::string* text = value != nullptr ? value->asString() : nullptr;
  if (text == nullptr) return 0;
  int64_t out = 0;
  std::from_chars(text->data(), text->data() + text->size(), out);
  return std::max<int64_t>(out, 0);
}

std::string string(const Dictionary& fields, std::string_view key) {
  const Value* value = fields.find(key);
  const std::string* text = value != nullptr ? value->asString() : nullptr;
  return text != nullptr ? *text : std::string();
}

std::vector<Summary> summaries(CollectorStore& store, const StoreFilter& filter,
                               std::size_t limit) {
  std::vector<Summary> out;
  for (const StoredDiagnosis& diagnosis : store.latestDiagnoses(limit, true, filter)) {
    std::optional<Value> report = serial::parseJson(diagnosis.report);
    const Dictionary* fields = report ? report->asDictionary() : nullptr;
    const Value* object = fields != nullptr ? fields->find("play_summary") : nullptr;
    const Dictionary* summary = object != nullptr ? object->asDictionary() : nullptr;
    if (summary == nullptr) continue;
    Summary play;
    play.movieId = string(*summary, "movie_id");
    // The store matches the title as text; this is the exact comparison.
    if (filter.title && play.movieId != *filter.title) continue;
    play.cause = string(*summary, "cause");
    play.startup = decimal(*summary, "startup_ms");
    play.rebufferMillis = decimal(*summary, "rebuffer_ms");
    play.playedMillis = decimal(*summary, "played_ms");
    play.bitrate = decimal(*summary, "average_bitrate_bps");
    play.failed = string(*summary, "failed") == "1";
    play.exitBeforeStart = string(*summary, "exit_before_start") == "1";
    out.push_back(std::move(play));
  }
  return out;
}

// The nearest-rank percentile of sorted `values`; 0 for none.
int64_t percentile(const std::vector<int64_t>& values, int percent) {
  if (values.empty()) return 0;
  std::size_t rank = (values.size() * static_cast<std::size_t>(percent) + 99) / 100;
  return values[std::max<std::size_t>(rank, 1) - 1];
}

}  // namespace

std::vector<TitleQuality> CollectorStore::titles(const StoreFilter& filter, std::size_t limit,
                                                 std::size_t titles) {
  struct Sums {
    std::vector<int64_t> startups;
    int64_t plays = 0, failures = 0, exits = 0, rebuffer = 0, played = 0;
    double bitrateTime = 0;
    int64_t bitratePlayed = 0;
  };
  std::map<std::string, Sums> perTitle;
  for (const Summary& play : summaries(*this, filter, limit)) {
    Sums& sums = perTitle[play.movieId];
    ++sums.plays;
    sums.failures += play.failed;
    sums.exits += play.exitBeforeStart;
    if (!play.failed && !play.exitBeforeStart) sums.startups.push_back(play.startup);
    sums.rebuffer += play.rebufferMillis;
    sums.played += play.playedMillis;
    if (play.bitrate > 0) {
      sums.bitrateTime +=
          static_cast<double>(play.bitrate) * static_cast<double>(play.playedMillis);
      sums.bitratePlayed += play.playedMillis;
    }
  }
  std::vector<TitleQuality> out;
  for (auto& [movieId, sums] : perTitle) {
    std::sort(sums.startups.begin(), sums.startups.end());
    TitleQuality title;
    title.movieId = movieId;
    title.plays = sums.plays;
    title.startupP50 = percentile(sums.startups, 50);
    title.startupP95 = percentile(sums.startups, 95);
    const int64_t watched = sums.played + sums.rebuffer;
    title.rebufferRatio = watched > 0 ? static_cast<double>(sums.rebuffer) / watched : 0.0;
    title.failures = sums.failures;
    title.failureRate = static_cast<double>(sums.failures) / sums.plays;
    title.exitsBeforeStart = sums.exits;
    title.averageBitrate =
        sums.bitratePlayed > 0 ? std::llround(sums.bitrateTime / sums.bitratePlayed) : 0;
    out.push_back(std::move(title));
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const TitleQuality& a, const TitleQuality& b) { return a.plays > b.plays; });
  if (out.size() > titles) out.resize(titles);
  return out;
}

std::vector<NamedCount> CollectorStore::failures(const StoreFilter& filter, std::size_t limit,
                                                 std::size_t causes) {
  std::map<std::string, int64_t> perCause;
  for (const Summary& play : summaries(*this, filter, limit)) {
    if (play.failed) ++perCause[play.cause];
  }
  std::vector<NamedCount> out;
  for (const auto& [cause, count] : perCause) out.push_back({cause, count});
  std::stable_sort(out.begin(), out.end(),
                   [](const NamedCount& a, const NamedCount& b) { return a.count > b.count; });
  if (out.size() > causes) out.resize(causes);
  return out;
}

}  // namespace qxlog::collector
