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
//   GET /api/plays        the latest plays with their play actions
//   GET /api/diagnoses    the latest diagnoses
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
  HttpServerAnswer summary();
  HttpServerAnswer records();
  HttpServerAnswer plays();
  HttpServerAnswer diagnoses();

  CollectorStore& store_;
  std::string chartJsPath_;
};

// The page itself: HTML, CSS and script in one text.
const char* dashboardPage();

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_DASHBOARD_DASHBOARD_H_
