// The dashboard's queries on a large store: fills LOCATION (an SQLite file or
// a PostgreSQL URI) up to RECORDS records, if it holds fewer, then times each
// query the dashboard and /received make (best and worst of five), one line
// each: "query NAME best_ms worst_ms".
//   qxlog_store_queries LOCATION RECORDS
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "collector/store/CollectorStore.h"

namespace {

using namespace qxlog;
using namespace qxlog::collector;

Dictionary strings(std::initializer_list<std::pair<std::string, std::string>> pairs) {
  Dictionary out;
  for (const auto& [key, value] : pairs) out.set(key, Value(value));
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s LOCATION RECORDS\n", argv[0]);
    return 2;
  }
  const int64_t wanted = std::atoll(argv[2]);
  StoreOptions options;
  options.wait = std::chrono::milliseconds(60000);
  std::string error;
  auto store = CollectorStore::open(argv[1], options, error);
  if (!store) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  // Uploads of 500 records over two days from 200 devices: actions, plays
  // with actions, launches; and a diagnosis with a play summary every 100
  // uploads.
  constexpr int kPerUpload = 500;
  const int64_t start = 1'800'000'000'000;
  int64_t stored = store->totals().records;
  const auto fillStart = std::chrono::steady_clock::now();
  for (int64_t u = stored / kPerUpload; stored < wanted; ++u) {
    UploadRow upload;
    upload.receivedAt = start + u * 2 * 86'400'000 / (wanted / kPerUpload + 1);
    upload.header = strings({{"t_2", "device-" + std::to_string(u % 200)}});
    upload.digest = "fill-" + std::to_string(u);
    for (int r = 0; r < kPerUpload; ++r) {
      if (r % 50 == 0) {
        Dictionary play = strings({{"a_t", "1"}, {"a_7", "film"}});
        play.set("p", Value(Array{Value(strings({{"p_2", "1"}})), Value(strings({{"p_2", "2"}}))}));
        upload.records.push_back(Value(std::move(play)));
      } else {
        upload.records.push_back(
            Value(strings({{"a_t", r % 10 == 0 ? "0" : "2"}, {"a_1", std::to_string(r)}})));
      }
    }
    store->storeUpload(upload);
    stored += kPerUpload;
    if (u % 100 == 0) {
      DiagnosisRow diagnosis;
      diagnosis.receivedAt = upload.receivedAt;
      diagnosis.device = "device-" + std::to_string(u % 200);
      Dictionary report;
      report.set("play_summary", Value(strings({{"startup_ms", "250"}, {"played_ms", "9000"}})));
      diagnosis.report = Value(std::move(report));
      store->storeDiagnosis(diagnosis);
    }
  }
  std::printf("fill %lld records in %.1f s\n", static_cast<long long>(stored),
              std::chrono::duration<double>(std::chrono::steady_clock::now() - fillStart).count());

  const std::vector<std::pair<const char*, std::function<void()>>> queries = {
      {"totals", [&] { store->totals(); }},
      {"records_per_type", [&] { store->recordsPerName(); }},
      {"devices", [&] { store->devices(50); }},
      {"per_minute", [&] { store->perMinute(120); }},
      {"latest_records", [&] { store->latestRecords(50, false); }},
      {"latest_plays", [&] { store->latestRecords(10, true); }},
      {"latest_diagnoses", [&] { store->latestDiagnoses(20, false); }},
      {"play_summaries", [&] { store->latestDiagnoses(1000, true); }},
      {"latest_plays_joined", [&] { store->latestRecords(200, true); }},
      {"titles", [&] { store->titles({}, 10000, 100); }},
      {"failures", [&] { store->failures({}, 10000, 50); }},
      {"received_one_device", [&] { store->delivered("device-7"); }},
      {"received_all", [&] { store->delivered(); }},
  };
  for (const auto& [name, query] : queries) {
    double best = 1e9, worst = 0;
    for (int i = 0; i < 5; ++i) {
      const auto t0 = std::chrono::steady_clock::now();
      query();
      const double ms =
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
      best = std::min(best, ms);
      worst = std::max(worst, ms);
    }
    std::printf("query %s %.1f %.1f\n", name, best, worst);
  }
  return 0;
}
