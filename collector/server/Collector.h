// The server side of the library's three exchanges, as a request handler for
// HttpServer:
//
//   GET  /settings?token=T&uid=D  the batch size and push interval
//   POST /log                     an upload: form fields "log_data", "token"
//   POST /diagnosis               a diagnosis: "diagnosis_log", "token" and
//                                 "user_id", "uid", "user_phone", "velin", "version"
//   GET  /received[?uid=D]        what has been stored (for one device)
//
// Everything that matters lives in the store (replays, settings counts, ids),
// so collectors that share one database answer as one would. When the store
// stays busy past its bounded wait, the request is answered 503 with
// "Retry-After".
// Accepted uploads and diagnoses are written to the store and answered
// {"operate_code": "200"}. Anything unreadable is refused with a 4xx status
// and a one-line reason, and nothing is stored.
#ifndef QXLOG_COLLECTOR_SERVER_COLLECTOR_H_
#define QXLOG_COLLECTOR_SERVER_COLLECTOR_H_

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "QXLog/QXLogValue.h"
#include "collector/dashboard/Dashboard.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "collector/decode/JsonShape.h"
#include "collector/http/HttpServer.h"
#include "collector/store/CollectorStore.h"

namespace qxlog::collector {

using SystemClock = std::function<std::chrono::system_clock::time_point()>;

// The day tokens that uploads may carry at `now`: today's and yesterday's in
// the process's local time zone, so that an upload sealed just before
// midnight is still accepted. Each is the MD5 of "yyyy-MM-dd" and the salt.
std::vector<std::string> acceptedDayTokens(std::chrono::system_clock::time_point now);
std::string dayToken(int year, int month, int day);

struct CollectorOptions {
  NullableString key;                // the hosts' logEncryptionKey
  int64_t pushIntervalTime = 60000;  // milliseconds
  int64_t pushIntervalNumber = 20;   // batch size
  // The "operate_code" of the answer. Anything but "200" makes the client
  // drop the batch; the collector then stores nothing.
  std::string answerCode = "200";
  // The HTTP status of upload answers. Outside 200..299 the client sends the
  // batch once more; the collector stores nothing.
  int answerStatus = 200;
  // What one upload or diagnosis may hold: bytes once inflated, records
  // (uploads), and the shape of its JSON. Beyond any of them it is refused
  // with 413 and the limit's name, and nothing is stored.
  std::size_t maxInflatedBytes = 16 << 20;
  std::size_t maxRecordsPerUpload = 10000;
  JsonShapeLimits shape;
  // Where the dashboard's Chart.js is read from.
  std::string chartJsPath = kSystemChartJs;
  SystemClock clock = [] { return std::chrono::system_clock::now(); };
  // Proxies (IP addresses) whose "Forwarded" / "X-Forwarded-For" name the
  // client; see resolveClientAddress.
  std::vector<std::string> trustedProxies;
};

// What the collector tells its operator; every member may be empty.
struct CollectorEvents {
  std::function<void(int64_t id, const UploadRow&)> upload;
  std::function<void(int64_t id, const DiagnosisRow&)> diagnosis;
  std::function<void(const HttpServerRequest&, const std::string& uid)> settings;
  // An upload answered "200" but not stored again: it repeats upload `first`.
  std::function<void(const HttpServerRequest&, int64_t first)> replay;
  // A request that was answered but not stored, and why.
  std::function<void(const HttpServerRequest&, int status, const std::string& reason)> refusal;
};

class Collector {
 public:
  Collector(CollectorOptions options, CollectorStore& store, CollectorEvents events = {});

  HttpServerAnswer handle(const HttpServerRequest& request);

  // Settings requests answered so far, per "uid" query value.
  int64_t settingsRequests(const std::string& uid) const;

 private:
  HttpServerAnswer serve(const HttpServerRequest& request);
  HttpServerAnswer route(const HttpServerRequest& request);
  HttpServerAnswer settings(const HttpServerRequest& request);
  HttpServerAnswer log(const HttpServerRequest& request);
  HttpServerAnswer diagnosis(const HttpServerRequest& request);
  HttpServerAnswer received(const HttpServerRequest& request);
  HttpServerAnswer refuse(const HttpServerRequest& request, int status, const std::string& reason);
  HttpServerAnswer confirm() const;
  // Empty when the token is today's or yesterday's; otherwise the reason.
  std::string checkToken(const std::string& token) const;
  bool answersSuccess() const;
  HttpServerAnswer notStored(const HttpServerRequest& request);
  // A body's field decoded within the limits, or the refusal to answer.
  Decoded<Value> decodeWithinLimits(const std::string& text, bool upload) const;
  int64_t nowMillis() const;

  CollectorOptions options_;
  CollectorStore& store_;
  CollectorEvents events_;
  Dashboard dashboard_;
};

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_SERVER_COLLECTOR_H_
