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
using Rows = std::vector<std::vector<std::string>>;

// The longest record and report text that the API parses and serves whole,
// in characters; a longer one is served cut to its first characters, with
// its length, so that one large upload cannot make every answer large.
constexpr int64_t kServedRecordChars = 64 << 10;
constexpr int64_t kServedReportChars = 256 << 10;
const std::string kRecordLimit = std::to_string(kServedRecordChars);
const std::string kReportLimit = std::to_string(kServedReportChars);

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
Json playerMeasures(const Rows& reports) {
  namespace keys = play_summary;
  Json startups = Json::array();
  int64_t plays = 0, rebuffers = 0, rebufferMillis = 0, playedMillis = 0, seeks = 0, seekMillis = 0,
          failures = 0, exitsBeforeStart = 0;
  for (const auto& row : reports) {
    Json summary = parsed(row[0])[keys::kObject];
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
void cutText(Json& item, const std::string& head, const std::string& length) {
  item["cut"] = true;
  item["length"] = number(length);
  item["head"] = head;
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
  Rows totals = store_.rows(
      "SELECT count(*), coalesce(sum(record_count), 0), "
      "(SELECT count(*) FROM diagnoses), (SELECT coalesce(sum(replays), 0) FROM upload_digests) "
      "FROM uploads");
  if (totals.empty()) totals.push_back({"0", "0", "0", "0"});
  Json answer = {{"uploads", number(totals[0][0])},
                 {"records", number(totals[0][1])},
                 {"diagnoses", number(totals[0][2])},
                 {"replays", number(totals[0][3])}};
  Json types = Json::object();
  for (const auto& row :
       store_.rows("SELECT name, count(*) FROM records GROUP BY name ORDER BY count(*) DESC "
                   "LIMIT 100")) {
    types[row[0]] = number(row[1]);
  }
  answer["records_per_type"] = types;
  Json devices = Json::array();
  for (const auto& row : store_.rows("SELECT device, count(*), max(received_at) FROM uploads "
                                     "GROUP BY device ORDER BY 3 DESC LIMIT 50")) {
    devices.push_back(
        {{"device", row[0]}, {"uploads", number(row[1])}, {"last_seen", number(row[2])}});
  }
  answer["devices"] = devices;
  Json minutes = Json::array();
  for (const auto& row : store_.rows("SELECT received_at / 60000 * 60000 AS minute, count(*), "
                                     "sum(record_count) FROM uploads GROUP BY minute "
                                     "ORDER BY minute DESC LIMIT 120")) {
    Json point;
    point["minute"] = number(row[0]);
    point["uploads"] = number(row[1]);
    point["records"] = number(row[2]);
    minutes.insert(minutes.begin(), std::move(point));
  }
  answer["per_minute"] = minutes;
  answer["players"] = playerMeasures(store_.rows(
      "SELECT report FROM diagnoses WHERE length(report) <= " + kReportLimit +
      " AND json_extract(report, '$.play_summary') IS NOT NULL ORDER BY id DESC LIMIT 1000"));
  return jsonAnswer(answer);
}

HttpServerAnswer Dashboard::records() {
  Json list = Json::array();
  for (const auto& row :
       store_.rows("SELECT r.id, r.upload_id, u.received_at, u.device, r.name, substr(r.body, 1, " +
                   kRecordLimit + "), length(r.body) FROM records r JOIN uploads u ON " +
                   "u.id = r.upload_id ORDER BY r.id DESC LIMIT 50")) {
    const bool cut = number(row[6]) > kServedRecordChars;
    Json record = cut ? Json() : parsed(row[5]);
    Json item = {{"id", number(row[0])},
                 {"upload", number(row[1])},
                 {"received_at", number(row[2])},
                 {"device", row[3]},
                 {"name", row[4]},
                 {"fields", cut ? Json::array() : explained(record)},
                 {"play_actions", record.contains("p") ? record["p"].size() : 0}};
    if (cut) cutText(item, row[5], row[6]);
    list.push_back(std::move(item));
  }
  return jsonAnswer(list);
}

HttpServerAnswer Dashboard::plays() {
  Json list = Json::array();
  for (const auto& row :
       store_.rows("SELECT r.id, u.received_at, u.device, r.name, substr(r.body, 1, " +
                   kRecordLimit + "), length(r.body) FROM records r JOIN uploads u ON " +
                   "u.id = r.upload_id WHERE r.play_actions > 0 ORDER BY r.id DESC LIMIT 10")) {
    // A record too long to serve whole is listed without its actions.
    Json record = number(row[5]) > kServedRecordChars ? Json::object() : parsed(row[4]);
    if (!record.is_object()) record = Json::object();
    Json actions = Json::array();
    for (const Json& action : record.value("p", Json::array())) {
      if (action.is_object() && !action.empty()) actions.push_back(playAction(action));
    }
    list.push_back({{"id", number(row[0])},
                    {"received_at", number(row[1])},
                    {"device", row[2]},
                    {"name", row[3]},
                    {"movie", text(record, "a_7")},
                    {"url", text(record, "a_8")},
                    {"actions", actions}});
  }
  return jsonAnswer(list);
}

HttpServerAnswer Dashboard::diagnoses() {
  Json list = Json::array();
  for (const auto& row :
       store_.rows("SELECT id, received_at, device, substr(report, 1, " + kReportLimit +
                   "), length(report) FROM diagnoses ORDER BY id DESC LIMIT 20")) {
    const bool cut = number(row[4]) > kServedReportChars;
    Json report = cut ? Json::object() : parsed(row[3]);
    if (!report.is_object()) report = Json::object();
    Json play = report.value("play_info", Json::object());
    Json item = {{"id", number(row[0])},
                 {"received_at", number(row[1])},
                 {"device", row[2]},
                 {"url", text(play, "playUrl")},
                 {"ok", text(play, "isPlayOK")},
                 {"cause", text(play, "causeOfFailure")},
                 {"definition", text(play, "definition")},
                 {"summary", report.value(play_summary::kObject, Json())}};
    if (cut) cutText(item, row[3], row[4]);
    list.push_back(std::move(item));
  }
  return jsonAnswer(list);
}

}  // namespace qxlog::collector
