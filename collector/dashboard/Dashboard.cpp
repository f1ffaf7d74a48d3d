#include "collector/dashboard/Dashboard.h"

#include <fstream>
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
  return {{"operation", text(action, "p_2")},
          {"name", named ? kOperationNames[operation] : "operation " + text(action, "p_2")},
          {"status", text(action, "p_3")},
          {"start", number(text(action, "p_4"))},
          {"end", number(text(action, "p_5"))},
          {"start_position", number(text(action, "p_6"))},
          {"end_position", number(text(action, "p_7"))},
          {"play_time", number(text(action, "p_8"))}};
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

std::optional<HttpServerAnswer> Dashboard::serve(const HttpServerRequest& request) {
  if (request.method != "GET") return std::nullopt;
  const std::string& path = request.path;
  if (path == "/") return HttpServerAnswer{200, "text/html; charset=utf-8", dashboardPage()};
  if (path == "/chart.js") return chartJs();
  if (path == "/api/summary") return summary();
  if (path == "/api/records") return records();
  if (path == "/api/plays") return plays();
  if (path == "/api/diagnoses") return diagnoses();
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

HttpServerAnswer Dashboard::summary() {
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
  for (StoredDiagnosis& diagnosis : store_.latestDiagnoses(1000, true)) {
    if (static_cast<int64_t>(diagnosis.report.size()) > kServedReportChars) continue;
    reports.push_back(std::move(diagnosis.report));
  }
  answer["players"] = playerMeasures(reports);
  return jsonAnswer(answer);
}

HttpServerAnswer Dashboard::records() {
  Json list = Json::array();
  for (const StoredRecord& stored : store_.latestRecords(50, false)) {
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

HttpServerAnswer Dashboard::plays() {
  Json list = Json::array();
  for (const StoredRecord& stored : store_.latestRecords(10, true)) {
    // A record too long to serve whole is listed without its actions.
    Json record = static_cast<int64_t>(stored.body.size()) > kServedRecordChars
                      ? Json::object()
                      : parsed(stored.body);
    if (!record.is_object()) record = Json::object();
    Json actions = Json::array();
    for (const Json& action : record.value("p", Json::array())) {
      if (action.is_object() && !action.empty()) actions.push_back(playAction(action));
    }
    list.push_back({{"id", stored.id},
                    {"received_at", stored.receivedAt},
                    {"device", stored.device},
                    {"name", stored.name},
                    {"movie", text(record, "a_7")},
                    {"url", text(record, "a_8")},
                    {"actions", actions}});
  }
  return jsonAnswer(list);
}

HttpServerAnswer Dashboard::diagnoses() {
  Json list = Json::array();
  for (const StoredDiagnosis& diagnosis : store_.latestDiagnoses(20, false)) {
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

}  // namespace qxlog::collector
