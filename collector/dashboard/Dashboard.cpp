#include "collector/dashboard/Dashboard.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "QXLog/serial/Json.h"
#include "collector/dashboard/PlaySummary.h"
#include "collector/legend/FieldLegend.h"

namespace qxlog::collector {
namespace {

using Json = nlohmann::ordered_json;

// The longest record and report text that the API parses and serves whole,
// in characters; a longer one is served cut to its first characters, with
// its length, so that one large upload cannot make every answer large.
constexpr int64_t kServedRecordChars = 64 << 10;
constexpr int64_t kServedReportChars = 256 << 10;
// The latest end-of-play summaries that the title table and the failures
// are computed over.
constexpr std::size_t kSummariesRead = 10000;

constexpr const char* kOperationNames[] = {"",       "start",         "end",  "pause",
                                           "resume", "buffering",     "seek", "first frame",
                                           "error",  "quality change"};

HttpServerAnswer jsonAnswer(const Json& value) {
  return {200, "application/json",
          value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n"};
}

int64_t number(const std::string& text) {
  return std::strtoll(text.c_str(), nullptr, 10);
}

Json parsed(const std::string& text) {
  Json value = Json::parse(text, nullptr, false);
  return value.is_discarded() ? Json() : value;
}

std::string text(const Json& object, const char* key) {
  if (!object.is_object() || !object.contains(key)) return "";
  const Json& value = object.at(key);
  return value.is_string() ? value.get<std::string>() : value.dump();
}

// Each key of a record with its value and its meaning.
Json explained(const Json& record) {
  Json fields = Json::array();
  std::optional<Value> value = serial::parseJson(record.dump());
  LegendTable table =
      value && value->asDictionary() ? legendTableOf(*value->asDictionary()) : LegendTable::kAction;
  for (const auto& [key, field] : record.items()) {
    if (key == "p") continue;
    fields.push_back({{"key", key},
                      {"value", field.is_string() ? field.get<std::string>() : field.dump()},
                      {"meaning", std::string(meaningOf(table, key))}});
  }
  return fields;
}

Json playAction(const Json& action) {
  int64_t operation = number(text(action, "p_2"));
  bool named = operation >= 1 && operation <= 9;
  Json out = {{"operation", text(action, "p_2")},
              {"name", named ? kOperationNames[operation] : "operation " + text(action, "p_2")},
              {"status", text(action, "p_3")},
              {"start", number(text(action, "p_4"))},
              {"end", number(text(action, "p_5"))},
              {"start_position", number(text(action, "p_6"))},
              {"end_position", number(text(action, "p_7"))},
              {"play_time", number(text(action, "p_8"))}};
  // A quality change: the heights before and after, and the bitrate now.
  for (const char* key : {"from_height", "to_height", "bitrate_bps"}) {
    if (action.contains(key)) out[key] = number(text(action, key));
  }
  return out;
}

// The players' measures from their end-of-play summaries.
Json playerMeasures(const std::vector<std::string>& reports) {
  namespace keys = play_summary;
  Json startups = Json::array();
  int64_t plays = 0, rebuffers = 0, rebufferMillis = 0, playedMillis = 0, seeks = 0, seekMillis = 0,
          failures = 0, exitsBeforeStart = 0;
  for (const std::string& report : reports) {
    Json summary = parsed(report)[keys::kObject];
    if (!summary.is_object()) continue;
    ++plays;
    if (text(summary, keys::kExitBeforeStart) == "1") {
      ++exitsBeforeStart;
    } else {
      startups.push_back(number(text(summary, keys::kStartupMillis)));
    }
    rebuffers += number(text(summary, keys::kRebufferCount));
    rebufferMillis += number(text(summary, keys::kRebufferMillis));
    playedMillis += number(text(summary, keys::kPlayedMillis));
    int64_t seekCount = number(text(summary, keys::kSeekCount));
    seeks += seekCount;
    seekMillis += seekCount * number(text(summary, keys::kSeekAverageMillis));
    failures += text(summary, keys::kFailed) == "1";
  }
  int64_t watched = playedMillis + rebufferMillis;
  return {{"plays", plays},
          {"startup_ms", startups},
          {"rebuffer_count", rebuffers},
          {"rebuffer_ratio", watched > 0 ? static_cast<double>(rebufferMillis) / watched : 0.0},
          {"seek_count", seeks},
          {"seek_avg_ms", seeks > 0 ? seekMillis / seeks : 0},
          {"failures", failures},
          {"exits_before_start", exitsBeforeStart}};
}

// Marks an item whose stored text was too long to serve whole: its first
// characters as they are, and its whole length.
// Marks an item whose text is too long to serve whole: its length and its
// first `limit` characters.
void cutText(Json& item, const std::string& text, int64_t limit) {
  item["cut"] = true;
  item["length"] = static_cast<int64_t>(text.size());
  item["head"] = text.substr(0, static_cast<std::size_t>(limit));
}

}  // namespace

StoreFilter dashboardFilter(const HttpServerRequest& request) {
  constexpr std::size_t kLongestField = 256;
  auto field = [&](const char* name) -> std::optional<std::string> {
    auto found = request.params.find(name);
    if (found == request.params.end() || found->second.empty() ||
        found->second.size() > kLongestField) {
      return std::nullopt;
    }
    return found->second;
  };
  auto millis = [&](const char* name) -> std::optional<int64_t> {
    std::optional<std::string> text = field(name);
    int64_t value = 0;
    if (!text) return std::nullopt;
    auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || end != text->data() + text->size()) return std::nullopt;
    return value;
  };
  return {millis("from"), millis("to"), field("device"), field("title")};
}

std::optional<HttpServerAnswer> Dashboard::serve(const HttpServerRequest& request) {
  if (request.method != "GET") return std::nullopt;
  const std::string& path = request.path;
  if (path == "/") return HttpServerAnswer{200, "text/html; charset=utf-8", dashboardPage()};
  if (path == "/chart.js") return chartJs();
  if (path.rfind("/api/", 0) != 0) return std::nullopt;
  const StoreFilter filter = dashboardFilter(request);
  if (path == "/api/summary") return summary(filter);
  if (path == "/api/records") return records(filter);
  if (path == "/api/plays") return plays(filter);
  if (path == "/api/diagnoses") return diagnoses(filter);
  if (path == "/api/titles") return titles(filter);
  if (path == "/api/failures") return failures(filter);
  return std::nullopt;
}

HttpServerAnswer Dashboard::chartJs() const {
  std::ifstream file(chartJsPath_, std::ios::binary);
  if (!file) {
    return {404, "text/plain",
            "Chart.js is not installed (" + chartJsPath_ + ": libjs-chart.js)\n"};
  }
  std::ostringstream script;
  script << file.rdbuf();
  return {200, "text/javascript", script.str()};
}

HttpServerAnswer Dashboard::summary(const StoreFilter& filter) {
  const StoreTotals totals = store_.totals();
  Json answer = {{"uploads", totals.uploads},
                 {"records", totals.records},
                 {"diagnoses", totals.diagnoses},
                 {"replays", totals.replays}};
  Json types = Json::object();
  for (const NamedCount& type : store_.recordsPerName()) types[type.name] = type.count;
  answer["records_per_type"] = types;
  Json devices = Json::array();
  for (const DeviceSeen& device : store_.devices(50)) {
    devices.push_back(
        {{"device", device.device}, {"uploads", device.uploads}, {"last_seen", device.lastSeen}});
  }
  answer["devices"] = devices;
  Json minutes = Json::array();
  for (const MinuteCount& minute : store_.perMinute(120)) {
    Json point;
    point["minute"] = minute.minute;
    point["uploads"] = minute.uploads;
    point["records"] = minute.records;
    minutes.push_back(std::move(point));
  }
  answer["per_minute"] = minutes;
  std::vector<std::string> reports;
  for (StoredDiagnosis& diagnosis : store_.latestDiagnoses(1000, true, filter)) {
    if (static_cast<int64_t>(diagnosis.report.size()) > kServedReportChars) continue;
    reports.push_back(std::move(diagnosis.report));
  }
  answer["players"] = playerMeasures(reports);
  return jsonAnswer(answer);
}

HttpServerAnswer Dashboard::records(const StoreFilter& filter) {
  Json list = Json::array();
  for (const StoredRecord& stored : store_.latestRecords(50, false, filter)) {
    const bool cut = static_cast<int64_t>(stored.body.size()) > kServedRecordChars;
    Json record = cut ? Json() : parsed(stored.body);
    Json item = {{"id", stored.id},
                 {"upload", stored.uploadId},
                 {"received_at", stored.receivedAt},
                 {"device", stored.device},
                 {"name", stored.name},
                 {"fields", cut ? Json::array() : explained(record)},
                 {"play_actions", record.contains("p") ? record["p"].size() : 0}};
    if (cut) cutText(item, stored.body, kServedRecordChars);
    list.push_back(std::move(item));
  }
  return jsonAnswer(list);
}

HttpServerAnswer Dashboard::plays(const StoreFilter& filter) {
  // The parts of the latest plays: header copies with the same "play_id"
  // are one play; a copy without one is a play of its own.
  constexpr std::size_t kPartsRead = 200, kPlaysShown = 10;
  std::vector<Json> list;
  std::map<std::string, std::size_t> byId;
  for (const StoredRecord& stored : store_.latestRecords(kPartsRead, true, filter)) {
    // A record too long to serve whole is listed without its actions.
    Json record = static_cast<int64_t>(stored.body.size()) > kServedRecordChars
                      ? Json::object()
                      : parsed(stored.body);
    if (!record.is_object()) record = Json::object();
    const std::string playId = text(record, "play_id");
    auto known = playId.empty() ? byId.end() : byId.find(playId);
    if (known == byId.end()) {
      if (list.size() == kPlaysShown) continue;
      if (!playId.empty()) byId.emplace(playId, list.size());
      list.push_back({{"id", stored.id},
                      {"play_id", playId},
                      {"received_at", stored.receivedAt},
                      {"device", stored.device},
                      {"name", stored.name},
                      {"movie", text(record, "a_7")},
                      {"url", text(record, "a_8")},
                      {"parts", 0},
                      {"actions", Json::array()},
                      {"summary", nullptr}});
      known = byId.end();
    }
    Json& play = known == byId.end() ? list.back() : list[known->second];
    play["parts"] = play["parts"].get<int64_t>() + 1;
    for (const Json& action : record.value("p", Json::array())) {
      if (action.is_object() && !action.empty()) play["actions"].push_back(playAction(action));
    }
  }
  for (Json& play : list) {
    std::stable_sort(play["actions"].begin(), play["actions"].end(),
                     [](const Json& a, const Json& b) { return a["start"] < b["start"]; });
  }
  if (!byId.empty()) {
    StoreFilter summaries = filter;
    summaries.title.reset();
    for (const StoredDiagnosis& diagnosis : store_.latestDiagnoses(1000, true, summaries)) {
      if (static_cast<int64_t>(diagnosis.report.size()) > kServedReportChars) continue;
      Json summary = parsed(diagnosis.report)[play_summary::kObject];
      auto found = byId.find(text(summary, "play_id"));
      if (found != byId.end() && list[found->second]["summary"].is_null()) {
        list[found->second]["summary"] = summary;
      }
    }
  }
  return jsonAnswer(Json(list));
}

HttpServerAnswer Dashboard::diagnoses(const StoreFilter& filter) {
  Json list = Json::array();
  for (const StoredDiagnosis& diagnosis : store_.latestDiagnoses(20, false, filter)) {
    const bool cut = static_cast<int64_t>(diagnosis.report.size()) > kServedReportChars;
    Json report = cut ? Json::object() : parsed(diagnosis.report);
    if (!report.is_object()) report = Json::object();
    Json play = report.value("play_info", Json::object());
    Json item = {{"id", diagnosis.id},
                 {"received_at", diagnosis.receivedAt},
                 {"device", diagnosis.device},
                 {"url", text(play, "playUrl")},
                 {"ok", text(play, "isPlayOK")},
                 {"cause", text(play, "causeOfFailure")},
                 {"definition", text(play, "definition")},
                 {"summary", report.value(play_summary::kObject, Json())}};
    if (cut) cutText(item, diagnosis.report, kServedReportChars);
    list.push_back(std::move(item));
  }
  return jsonAnswer(list);
}

HttpServerAnswer Dashboard::titles(const StoreFilter& filter) {
  Json list = Json::array();
  for (const TitleQuality& title : store_.titles(filter, kSummariesRead, 100)) {
    list.push_back({{"movie_id", title.movieId},
                    {"plays", title.plays},
                    {"startup_p50_ms", title.startupP50},
                    {"startup_p95_ms", title.startupP95},
                    {"rebuffer_ratio", title.rebufferRatio},
                    {"failure_rate", title.failureRate},
                    {"failures", title.failures},
                    {"exits_before_start", title.exitsBeforeStart},
                    {"average_bitrate_bps", title.averageBitrate}});
  }
  return jsonAnswer(list);
}

HttpServerAnswer Dashboard::failures(const StoreFilter& filter) {
  Json list = Json::array();
  for (const NamedCount& cause : store_.failures(filter, kSummariesRead, 50)) {
    list.push_back({{"cause", cause.name}, {"plays", cause.count}});
  }
  return jsonAnswer(list);
}

}  // namespace qxlog::collector
