// The collector's dashboard: a page at "/" that shows what arrived, refreshed
// every few seconds, and the JSON behind it under "/api/". The page loads
// nothing from outside: its one script library, Chart.js, is served from the
// system's copy (Debian's libjs-chart.js).
//
//   GET /                 the page
//   GET /chart.js         Chart.js
//   GET /api/summary      totals, records per type, devices, uploads and
//                         records per minute, and the players' measures
//   GET /api/records      the latest records, each key with its meaning
//   GET /api/plays        the latest plays: the parts of one play (its header
//                         copies with the same "play_id") joined, actions in
//                         time order, with its end-of-play summary
//   GET /api/diagnoses    the latest diagnoses
//   GET /api/titles       per movie id, from the latest end-of-play summaries:
//                         plays, startup p50 and p95, rebuffering ratio,
//                         failure rate, exits before start, average bitrate
//   GET /api/failures     failed plays per cause
//
// Every /api/ answer takes the query fields "from" and "to" (ms since 1970,
// of arrival), "device" and "title" (a movie id); the totals, devices and
// per-minute counts of /api/summary are of everything, its players' measures
// within them.
#ifndef QXLOG_COLLECTOR_DASHBOARD_DASHBOARD_H_
#define QXLOG_COLLECTOR_DASHBOARD_DASHBOARD_H_

#include <optional>
#include <string>

#include "collector/http/HttpServer.h"
#include "collector/store/CollectorStore.h"

namespace qxlog::collector {

inline constexpr const char* kSystemChartJs = "/usr/share/javascript/chart.js/chart.min.js";

class Dashboard {
 public:
  Dashboard(CollectorStore& store, std::string chartJsPath = kSystemChartJs)
      : store_(store), chartJsPath_(std::move(chartJsPath)) {}

  // The answer when the request is the dashboard's (a GET of one of its
  // paths); nothing otherwise.
  std::optional<HttpServerAnswer> serve(const HttpServerRequest& request);

 private:
  HttpServerAnswer chartJs() const;
  HttpServerAnswer summary(const StoreFilter& filter);
  HttpServerAnswer records(const StoreFilter& filter);
  HttpServerAnswer plays(const StoreFilter& filter);
  HttpServerAnswer diagnoses(const StoreFilter& filter);
  HttpServerAnswer titles(const StoreFilter& filter);
  HttpServerAnswer failures(const StoreFilter& filter);

  CollectorStore& store_;
  std::string chartJsPath_;
};

// The filter of a request's query fields "from", "to", "device" and
// "title"; a number that does not parse, or a text longer than 256
// characters, is left out.
StoreFilter dashboardFilter(const HttpServerRequest& request);

// The page itself: HTML, CSS and script in one text.
const char* dashboardPage();

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_DASHBOARD_DASHBOARD_H_
