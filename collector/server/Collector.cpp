#include "collector/server/Collector.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <optional>

#include "QXLog/QXLogHelper.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "collector/server/ClientAddress.h"

namespace qxlog::collector {
namespace {

constexpr const char* kTokenSalt = "Rk4TqzWmLpVhNc7XsJdBfYoE";

// A form or query field as valid UTF-8 (invalid bytes replaced by U+FFFD, as
// the library does with host strings), so that nothing stored or printed is
// malformed. log_data is base64 and passes unchanged.
std::optional<std::string> field(const HttpServerRequest& request, const std::string& name) {
  auto it = request.params.find(name);
  if (it == request.params.end()) return std::nullopt;
  return serial::validUtf8(it->second);
}

std::string fieldOrEmpty(const HttpServerRequest& request, const std::string& name) {
  return field(request, name).value_or("");
}

HttpServerAnswer json(int status, const Value& value) {
  return HttpServerAnswer{status, "application/json", serial::toJson(value) + "\n"};
}

Dictionary countsOf(const std::map<std::string, int64_t>& counts) {
  Dictionary out;
  for (const auto& [key, count] : counts) out.set(key, Value(count));
  return out;
}

}  // namespace

std::string dayToken(int year, int month, int day) {
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d", year, month, day);
  return QXLogHelper::md5String(std::string(text) + kTokenSalt).value_or("");
}

std::vector<std::string> acceptedDayTokens(std::chrono::system_clock::time_point now) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm today{};
  localtime_r(&seconds, &today);
  // Yesterday by the calendar, computed without mktime: mktime re-reads the
  // time zone and races with other threads' localtime_r.
  using namespace std::chrono;
  const year_month_day date{year(today.tm_year + 1900) / (today.tm_mon + 1) / today.tm_mday};
  const year_month_day yesterday{sys_days(date) - days(1)};
  return {dayToken(today.tm_year + 1900, today.tm_mon + 1, today.tm_mday),
          dayToken(static_cast<int>(yesterday.year()),
                   static_cast<int>(static_cast<unsigned>(yesterday.month())),
                   static_cast<int>(static_cast<unsigned>(yesterday.day())))};
}

Collector::Collector(CollectorOptions options, CollectorStore& store, CollectorEvents events)
    : options_(std::move(options)),
      store_(store),
      events_(std::move(events)),
      dashboard_(store, options_.chartJsPath) {}

int64_t Collector::nowMillis() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(options_.clock().time_since_epoch())
      .count();
}

int64_t Collector::settingsRequests(const std::string& uid) const {
  return store_.settingsRequests(uid);
}

HttpServerAnswer Collector::handle(const HttpServerRequest& request) {
  if (!options_.trustedProxies.empty()) {
    const std::string client = resolveClientAddress(request, options_.trustedProxies);
    if (client != request.peer) {
      HttpServerRequest forwarded = request;
      forwarded.peer = client;
      return serve(forwarded);
    }
  }
  return serve(request);
}

// Answers a request whose peer is the client's; a store that stays busy past
// its bounded wait makes it 503, which devices retry after a second.
HttpServerAnswer Collector::serve(const HttpServerRequest& request) {
  try {
    return route(request);
  } catch (const StoreError& failure) {
    if (!failure.busy()) return refuse(request, 500, std::string("store: ") + failure.what());
    HttpServerAnswer answer = refuse(request, 503, std::string("store: ") + failure.what());
    answer.headers.emplace_back("Retry-After", "1");
    return answer;
  }
}

HttpServerAnswer Collector::route(const HttpServerRequest& request) {
  struct Route {
    const char* path;
    const char* method;
    HttpServerAnswer (Collector::*answer)(const HttpServerRequest&);
  };
  static constexpr Route kRoutes[] = {
      {"/settings", "GET", &Collector::settings},
      {"/log", "POST", &Collector::log},
      {"/diagnosis", "POST", &Collector::diagnosis},
      {"/received", "GET", &Collector::received},
  };
  for (const Route& route : kRoutes) {
    if (request.path != route.path) continue;
    if (request.method != route.method) {
      return refuse(request, 405, std::string(route.path) + " takes " + route.method);
    }
    return (this->*route.answer)(request);
  }
  if (std::optional<HttpServerAnswer> page = dashboard_.serve(request)) return *page;
  return refuse(request, 404, "no such path: " + request.path);
}

HttpServerAnswer Collector::refuse(const HttpServerRequest& request, int status,
                                   const std::string& reason) {
  if (events_.refusal) events_.refusal(request, status, reason);
  return HttpServerAnswer{status, "text/plain", reason + "\n"};
}

HttpServerAnswer Collector::confirm() const {
  Dictionary answer;
  answer.set("operate_code", Value(options_.answerCode));
  return json(options_.answerStatus, Value(std::move(answer)));
}

bool Collector::answersSuccess() const {
  return options_.answerCode == "200" && options_.answerStatus >= 200 &&
         options_.answerStatus <= 299;
}

// A readable upload that the collector was told to turn down: answered as
// configured, logged, not stored.
HttpServerAnswer Collector::notStored(const HttpServerRequest& request) {
  if (events_.refusal) {
    events_.refusal(request, options_.answerStatus,
                    "not stored: answering operate_code " + options_.answerCode + " as configured");
  }
  return confirm();
}

Decoded<Value> Collector::decodeWithinLimits(const std::string& text, bool upload) const {
  DecodeLimits limits{options_.maxInflatedBytes, options_.shape};
  limits.shape.maxRecords = upload ? std::max<std::size_t>(options_.maxRecordsPerUpload, 1) : 0;
  return decodeLogData(text, options_.key, limits);
}

std::string Collector::checkToken(const std::string& token) const {
  if (token.empty()) return "missing field token";
  const auto accepted = acceptedDayTokens(options_.clock());
  if (std::find(accepted.begin(), accepted.end(), token) == accepted.end()) {
    return "wrong token (not today's or yesterday's day token)";
  }
  return "";
}

HttpServerAnswer Collector::settings(const HttpServerRequest& request) {
  if (std::string why = checkToken(fieldOrEmpty(request, "token")); !why.empty()) {
    return refuse(request, 403, why);
  }
  const std::string uid = fieldOrEmpty(request, "uid");
  store_.countSettingsRequest(uid);
  if (events_.settings) events_.settings(request, uid);
  Dictionary result;
  result.set("push_interval_time", Value(options_.pushIntervalTime));
  result.set("push_interval_number", Value(options_.pushIntervalNumber));
  result.set("current_time", Value(nowMillis()));
  Dictionary answer;
  answer.set("result", Value(std::move(result)));
  return json(200, Value(std::move(answer)));
}

HttpServerAnswer Collector::log(const HttpServerRequest& request) {
  const std::optional<std::string> logData = field(request, "log_data");
  if (!logData) return refuse(request, 400, "missing field log_data");
  const std::string token = fieldOrEmpty(request, "token");
  if (std::string why = checkToken(token); !why.empty()) {
    return refuse(request, 403, why);
  }
  Decoded<Value> decoded = decodeWithinLimits(*logData, true);
  if (!decoded) {
    return refuse(request, decoded.overLimit ? 413 : 400, "log_data: " + decoded.error);
  }

  const Dictionary* body = decoded.value->asDictionary();
  const Value* header = body ? body->find("t") : nullptr;
  const Value* records = body ? body->find("a") : nullptr;
  if (!header || !records || !records->asArray() ||
      !(header->asDictionary() || header->asString())) {
    return refuse(request, 400, "log_data: the body is not {\"t\": header, \"a\": records}");
  }
  if (records->asArray()->size() > options_.maxRecordsPerUpload) {
    return refuse(
        request, 413,
        "log_data: more than " + std::to_string(options_.maxRecordsPerUpload) + " records");
  }
  for (const Value& record : *records->asArray()) {
    if (!record.asDictionary()) return refuse(request, 400, "log_data: a record is not an object");
  }
  if (!answersSuccess()) return notStored(request);

  // An upload seen before (the same sealed log_data, whatever its day token)
  // is confirmed again but stored once: a client repeats an upload whose
  // answer it lost.
  UploadRow row;
  row.receivedAt = nowMillis();
  row.peer = request.peer;
  row.token = token;
  row.digest = uploadDigest(*logData);
  if (header->asDictionary()) row.header = *header->asDictionary();
  row.records = *records->asArray();
  const UploadOutcome stored = store_.storeUpload(row);
  if (stored.replay) {
    if (events_.replay) events_.replay(request, stored.id);
  } else if (events_.upload) {
    events_.upload(stored.id, row);
  }
  return confirm();
}

HttpServerAnswer Collector::diagnosis(const HttpServerRequest& request) {
  const std::optional<std::string> report = field(request, "diagnosis_log");
  if (!report) return refuse(request, 400, "missing field diagnosis_log");
  const std::string token = fieldOrEmpty(request, "token");
  if (std::string why = checkToken(token); !why.empty()) {
    return refuse(request, 403, why);
  }
  Decoded<Value> decoded = decodeWithinLimits(*report, false);
  if (!decoded) {
    return refuse(request, decoded.overLimit ? 413 : 400, "diagnosis_log: " + decoded.error);
  }
  if (!decoded.value->asDictionary()) {
    return refuse(request, 400, "diagnosis_log: the report is not an object");
  }
  if (!answersSuccess()) return notStored(request);

  DiagnosisRow row;
  row.receivedAt = nowMillis();
  row.peer = request.peer;
  row.token = token;
  row.userId = fieldOrEmpty(request, "user_id");
  row.device = fieldOrEmpty(request, "uid");
  row.userPhone = fieldOrEmpty(request, "user_phone");
  row.velin = fieldOrEmpty(request, "velin");
  row.version = fieldOrEmpty(request, "version");
  row.report = std::move(*decoded.value);
  const int64_t id = store_.storeDiagnosis(row);
  if (events_.diagnosis) events_.diagnosis(id, row);
  return confirm();
}

HttpServerAnswer Collector::received(const HttpServerRequest& request) {
  const std::optional<std::string> uid = field(request, "uid");
  const Delivered delivered = store_.delivered(uid);
  const int64_t settings = uid ? store_.settingsRequests(*uid) : 0;
  Dictionary answer;
  answer.set("uploads", Value(delivered.uploads));
  // Present once an upload was replayed, so that older readers see no change.
  if (delivered.replays > 0) answer.set("replays", Value(delivered.replays));
  answer.set("records", Value(countsOf(delivered.records)));
  answer.set("play_actions", Value(countsOf(delivered.playActions)));
  answer.set("diagnoses", Value(delivered.diagnoses));
  if (uid) answer.set("settings", Value(settings));
  return json(200, Value(std::move(answer)));
}

}  // namespace qxlog::collector
