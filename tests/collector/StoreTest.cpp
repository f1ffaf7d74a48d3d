// The collector's store on SQLite and on a throwaway PostgreSQL (skipped, saying why, where it
// is not installed): queries, replays, shared counts, bounded waits, schemas, trusted proxies.
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <thread>
#include <tuple>

#include "QXLog/QXLogHelper.h"
#include "QXLog/support/Codecs.h"
#include "collector/dashboard/Dashboard.h"
#include "collector/server/ClientAddress.h"
#include "collector/server/LocalCollector.h"
#include "tests/support/HttpClient.h"
#include "tests/support/PostgresServer.h"
#include "tests/support/UploadFixture.h"

namespace qxlog {
namespace {

using namespace std::literals;
using namespace testing;
using namespace collector;

enum class Backend { kSqlite, kPostgres };

void PrintTo(Backend backend, std::ostream* out) {
  *out << (backend == Backend::kSqlite ? "SQLite" : "PostgreSQL");
}

std::string backendName(const ::testing::TestParamInfo<Backend>& info) {
  return info.param == Backend::kSqlite ? "Sqlite" : "Postgres";
}

// A connection of another client to the database, after `sql` ran on it; closed
// (rolling back what is open) when released.
std::shared_ptr<void> connect(Backend backend, const std::string& location,
                              const std::string& sql) {
  if (backend == Backend::kSqlite) {
    sqlite3* db = nullptr;
    sqlite3_open(location.c_str(), &db);
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    return {db, [](void* db) { sqlite3_close(static_cast<sqlite3*>(db)); }};
  }
  PGconn* connection = PQconnectdb(location.c_str());
  PGresult* result = PQexec(connection, sql.c_str());
  EXPECT_EQ(PQresultStatus(result), PGRES_COMMAND_OK) << PQerrorMessage(connection);
  PQclear(result);
  return {connection, [](void* connection) { PQfinish(static_cast<PGconn*>(connection)); }};
}

// A diagnosis from `device` holding an end-of-play summary of `summary`.
DiagnosisRow summaryFrom(const std::string& device, Dictionary summary, int64_t at = 0) {
  DiagnosisRow diagnosis;
  diagnosis.device = device;
  diagnosis.receivedAt = at;
  Dictionary report;
  report.set("play_summary", Value(std::move(summary)));
  diagnosis.report = Value(std::move(report));
  return diagnosis;
}

// `actions` action records and a film play of three play actions, one of them empty.
UploadRow upload(const std::string& digest, const std::string& device, int64_t at,
                 std::size_t actions = 2) {
  UploadRow row;
  row.receivedAt = at;
  row.peer = "10.0.0.1:5";
  row.digest = digest;
  row.header = strings({{"t_2", device}, {"t_12", "user"}});
  for (std::size_t i = 0; i < actions; ++i) {
    row.records.push_back(
        Value(strings({{"a_t", "2"}, {"a_1", digest + "." + std::to_string(i)}})));
  }
  Dictionary film = strings({{"a_t", "1"}, {"a_7", "film-" + digest}});
  film.set("p", Value(Array{Value(strings({{"p_2", "1"}})), Value(Dictionary()),
                            Value(strings({{"p_2", "2"}}))}));
  row.records.push_back(Value(std::move(film)));
  return row;
}

// A filter with one member set.
auto by = [](auto member, auto value) {
  StoreFilter filter;
  filter.*member = value;
  return filter;
};

class StoreTest : public ::testing::TestWithParam<Backend> {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qxlog-store-test.XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    location_ = dir_ + "/collector.db";
    std::string why;
    if (GetParam() == Backend::kPostgres) location_ = freshPostgresDatabase(why);
    if (location_.empty()) GTEST_SKIP() << "no PostgreSQL: " << why;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::unique_ptr<CollectorStore> open() {
    std::string error;
    auto store = CollectorStore::open(location_, error);
    EXPECT_TRUE(store) << error;
    return store;
  }

  std::string dir_;
  std::string location_;
};

TEST_P(StoreTest, AnswersEveryQueryOfTheDashboardAndTheApi) {
  auto store = open();
  ASSERT_TRUE(store);
  // Two devices; uploads over three minutes and one three hours earlier,
  // outside the per-minute window.
  const int64_t minute = 29'000'000 * int64_t{60000};
  ASSERT_FALSE(store->storeUpload(upload("early", "d1", minute - 180 * 60000)).replay);
  ASSERT_FALSE(store->storeUpload(upload("a", "d1", minute)).replay);
  ASSERT_FALSE(store->storeUpload(upload("b", "d2", minute + 60000 + 5, 1)).replay);
  ASSERT_FALSE(store->storeUpload(upload("c", "d1", minute + 120000 + 59999)).replay);
  store->storeDiagnosis(summaryFrom("d2", strings({{"startup_ms", "300"}})));
  DiagnosisRow diagnosis = summaryFrom("d2", {});
  diagnosis.report = Value(strings({{"k", "v"}}));
  store->storeDiagnosis(diagnosis);

  const StoreTotals totals = store->totals();
  EXPECT_EQ(std::tuple(totals.uploads, totals.records, totals.diagnoses, totals.replays),
            std::tuple(4, 4 * 3 - 1, 2, 0));
  EXPECT_EQ(rows(store->recordsPerName(), &NamedCount::name, &NamedCount::count),
            "action 7; film play 4");
  EXPECT_EQ(
      rows(store->devices(1), &DeviceSeen::device, &DeviceSeen::uploads, &DeviceSeen::lastSeen),
      "d1 3 " + std::to_string(minute + 120000 + 59999));
  // The early upload is outside the window.
  auto at = [&](int i) { return std::to_string(minute + i * 60000); };
  EXPECT_EQ(rows(store->perMinute(120), &MinuteCount::minute, &MinuteCount::uploads,
                 &MinuteCount::records),
            at(0) + " 1 3; " + at(1) + " 1 2; " + at(2) + " 1 3");

  const auto latest = store->latestRecords(2, false);
  ASSERT_EQ(latest.size(), 2u);
  EXPECT_GT(latest[0].id, latest[1].id);
  EXPECT_EQ(rows(latest, &StoredRecord::name, &StoredRecord::device, &StoredRecord::body),
            R"(film play d1 {"a_t":"1","a_7":"film-c","p":[{"p_2":"1"},{},{"p_2":"2"}]}; )"
            R"(action d1 {"a_t":"2","a_1":"c.1"})");
  EXPECT_EQ(rows(store->latestRecords(10, true), &StoredRecord::type), "1; 1; 1; 1");
  EXPECT_EQ(rows(store->latestDiagnoses(10, true), &StoredDiagnosis::report),
            R"({"play_summary":{"startup_ms":"300"}})");

  const Delivered d1 = store->delivered("d1");
  // Two non-empty play actions of three per play.
  EXPECT_EQ(std::tuple(d1.uploads, d1.records.at("2"), d1.playActions.at("1")),
            std::tuple(3, 6, 6));
  EXPECT_EQ(std::tuple(store->perMinute(2).size(), store->latestDiagnoses(10, false).size(),
                       store->diagnoses().size(), store->delivered("d2").diagnoses,
                       store->records("1"s).size(), store->records().size()),
            std::tuple(2u, 2u, 2u, 2, 4u, 11u));
}

TEST_P(StoreTest, TitlesAndFailuresComeFromTheLatestSummariesWithinTheFilter) {
  auto store = open();
  ASSERT_TRUE(store);
  const char* const keys[] = {
      "movie_id", "startup_ms",        "rebuffer_ms", "played_ms", "average_bitrate_bps",
      "failed",   "exit_before_start", "cause"};
  // The device, then a value for each key.
  const std::vector<std::vector<const char*>> planted = {
      {"d1", "film-1", "100", "100", "900", "1000000", "0", "0", ""},
      {"d1", "film-1", "300", "0", "1800", "2500000", "0", "0", ""},
      {"d1", "film-1", "200", "200", "0", "0", "0", "0", ""},
      {"d1", "film-1", "5000", "0", "0", "0", "1", "0", "timeout"},
      {"d1", "film-1", "700", "0", "0", "0", "0", "1", ""},
      {"d2", "film_2", "400", "0", "100", "0", "1", "0", "timeout"},
  };
  int64_t at = 1000;
  for (const auto& play : planted) {
    Dictionary summary;
    for (std::size_t i = 0; i < std::size(keys); ++i) summary.set(keys[i], Value(play[i + 1]));
    store->storeDiagnosis(summaryFrom(play[0], summary, at += 1000));
  }
  ASSERT_FALSE(store->storeUpload(upload("u", "d2", 9000)).replay);

  // Startup of 100, 200, 300: failures and exits left out; the bitrate
  // weighted by 900 and 1800 ms played.
  const auto titles = store->titles({}, 1000, 100);
  EXPECT_EQ(rows(titles, &TitleQuality::movieId, &TitleQuality::plays, &TitleQuality::startupP50,
                 &TitleQuality::startupP95, &TitleQuality::exitsBeforeStart,
                 &TitleQuality::averageBitrate),
            "film-1 5 200 300 1 2000000; film_2 1 0 0 0 0");
  ASSERT_EQ(titles.size(), 2u);
  EXPECT_DOUBLE_EQ(titles[0].rebufferRatio, 300.0 / 3000.0);
  EXPECT_DOUBLE_EQ(titles[0].failureRate, 0.2);
  EXPECT_DOUBLE_EQ(titles[1].failureRate, 1.0);
  EXPECT_EQ(store->titles({}, 1000, 1).size(), 1u);
  // The newest summary only.
  EXPECT_EQ(rows(store->titles({}, 1, 100), &TitleQuality::movieId), "film_2");
  auto titled = [&](const StoreFilter& filter) {
    return rows(store->titles(filter, 1000, 100), &TitleQuality::movieId, &TitleQuality::plays);
  };
  // "_" is no wildcard, in titles or in the stored text.
  EXPECT_EQ(titled(by(&StoreFilter::title, "film_1")), "");
  EXPECT_EQ(titled(by(&StoreFilter::title, "FILM-1")), "");
  EXPECT_EQ(titled(by(&StoreFilter::title, "film-1")), "film-1 5");
  StoreFilter range = by(&StoreFilter::from, 3000);
  range.to = 5000;
  EXPECT_EQ(titled(range), "film-1 2");
  auto failures = [&](const StoreFilter& filter) {
    return rows(store->failures(filter, 1000, 10), &NamedCount::name, &NamedCount::count);
  };
  EXPECT_EQ(failures({}), "timeout 2");
  EXPECT_EQ(failures(by(&StoreFilter::device, "d1")), "timeout 1");
  auto records = [&](const StoreFilter& filter, bool playsOnly) {
    return store->latestRecords(10, playsOnly, filter).size();
  };
  EXPECT_EQ(records(by(&StoreFilter::device, "d1"), false), 0u);
  EXPECT_EQ(records(by(&StoreFilter::device, "d2"), false), 3u);
  EXPECT_EQ(records(by(&StoreFilter::title, "film-u"), true), 1u);
  EXPECT_EQ(records(by(&StoreFilter::title, "film_u"), true), 0u);
  EXPECT_EQ(records(by(&StoreFilter::to, 9000), true), 0u);
}

// A header copy of play `id` holding actions that start at `starts`.
Dictionary playPart(const std::string& id, const std::string& movie,
                    std::initializer_list<const char*> starts) {
  Dictionary header = strings({{"a_t", "1"}, {"a_7", movie}, {"play_id", id}});
  Array actions;
  for (const char* start : starts)
    actions.push_back(Value(strings({{"p_2", "5"}, {"p_4", start}})));
  header.set("p", Value(std::move(actions)));
  return header;
}

TEST_P(StoreTest, PlaysJoinTheirHeaderCopiesByIdWithTheirSummary) {
  auto store = open();
  ASSERT_TRUE(store);
  UploadRow first = upload("x", "d1", 1000, 0), second = upload("y", "d1", 2000, 0);
  first.records = {Value(playPart("aa", "film-1", {"300", "100"})),
                   Value(playPart("bb", "film-2", {"150"}))};
  second.records = {Value(playPart("aa", "film-1", {"200"}))};
  ASSERT_FALSE(store->storeUpload(first).replay);
  ASSERT_FALSE(store->storeUpload(second).replay);
  store->storeDiagnosis(summaryFrom("", strings({{"play_id", "aa"}, {"movie_id", "film-1"}})));

  Dashboard dashboard(*store);
  auto plays = [&](const std::string& query) {
    HttpServerRequest request;
    request.method = "GET";
    request.path = "/api/plays";
    parseFormFields(query, request.params);
    auto answer = dashboard.serve(request);
    EXPECT_TRUE(answer && answer->status == 200);
    return nlohmann::json::parse(answer ? answer->body : "[]");
  };
  nlohmann::json all = plays("");
  ASSERT_EQ(all.size(), 2u) << all;
  EXPECT_EQ(all[0]["play_id"], "aa");  // its latest part arrived last
  EXPECT_EQ(all[0]["parts"], 2);
  std::vector<int64_t> starts;
  for (const auto& action : all[0]["actions"]) starts.push_back(action["start"]);
  EXPECT_EQ(starts, (std::vector<int64_t>{100, 200, 300}));
  EXPECT_EQ(all[0]["summary"]["movie_id"], "film-1");
  EXPECT_EQ(all[1]["play_id"], "bb");
  EXPECT_EQ(all[1]["actions"].size(), 1u);
  EXPECT_TRUE(all[1]["summary"].is_null());
  EXPECT_EQ(plays("title=film-2").size(), 1u);
  EXPECT_EQ(plays("to=2000").at(0)["parts"], 1);  // the first upload's part only
  EXPECT_EQ(plays("device=d2").size(), 0u);
}

TEST_P(StoreTest, SettingsCountsAndRepeatsAreSharedByEveryStoreOnTheDatabase) {
  auto first = open();
  auto second = open();
  ASSERT_TRUE(first && second);
  for (int i = 0; i < 3; ++i) first->countSettingsRequest("device");
  for (int i = 0; i < 2; ++i) second->countSettingsRequest("device");
  second->countSettingsRequest("other");
  EXPECT_EQ(std::tuple(first->settingsRequests("device"), second->settingsRequests("other"),
                       first->settingsRequests("never")),
            std::tuple(5, 1, 0));
  // A repeat through the other store names the upload it repeats (repeats
  // arriving at once through two collectors: CollectorFleetTest).
  const UploadOutcome stored = first->storeUpload(upload("u7", "d", 7));
  const UploadOutcome repeat = second->storeUpload(upload("u7", "d", 7));
  EXPECT_EQ(std::tuple(stored.replay, repeat.replay, repeat.id),
            std::tuple(false, true, stored.id));
  const StoreTotals totals = first->totals();
  EXPECT_EQ(std::tuple(totals.uploads, totals.records, totals.replays), std::tuple(1, 3, 1));
}

TEST_P(StoreTest, RefusesADatabaseOfANewerSchemaAndKeepsItsData) {
  for (int64_t uploads : {0, 1}) {  // opening again migrates nothing and loses nothing
    auto store = open();
    ASSERT_TRUE(store);
    EXPECT_EQ(store->totals().uploads, uploads);
    if (uploads == 0) store->storeUpload(upload("kept", "d", 1));
  }
  connect(GetParam(), location_, "UPDATE qxlog_schema SET version = 99");
  std::string error;
  EXPECT_FALSE(CollectorStore::open(location_, error));
  EXPECT_NE(error.find("version 99"), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(Backends, StoreTest,
                         ::testing::Values(Backend::kSqlite, Backend::kPostgres), backendName);

// Collectors sharing one database over HTTP, as behind a load balancer.
class CollectorFleetTest : public StoreTest {
 protected:
  void TearDown() override {
    collectors_.clear();
    std::fclose(log_);
    StoreTest::TearDown();
  }
  LocalCollector& start(LocalCollectorOptions options = {}) {
    options.database = location_;
    options.collector.key = std::string(kTestKey);
    options.output = Output::kQuiet;
    options.log = log_;
    std::string error;
    collectors_.push_back(LocalCollector::start(options, error));
    EXPECT_TRUE(collectors_.back()) << error;
    return *collectors_.back();
  }
  static std::string logForm(const std::string& json) {
    const std::string sealed =
        support::base64Encode(*QXLogHelper::data_AES256(*QXLogHelper::gzipDeflate(json), kTestKey));
    return "log_data=" + formEncode(sealed) + "&token=" + today() + "&uid=device";
  }
  static std::string today() { return acceptedDayTokens(std::chrono::system_clock::now())[0]; }

  std::vector<std::unique_ptr<LocalCollector>> collectors_;
  std::FILE* log_ = std::fopen("/dev/null", "w");
};

TEST_P(CollectorFleetTest, UploadsSentTwiceAtOnceToTwoCollectorsAreStoredOnce) {
  std::array<LocalCollector*, 2> fleet = {&start(), &start()};
  constexpr int kUploads = 200, kRecords = 5, kThreadsPerCollector = 8;
  std::vector<std::string> forms;
  for (int i = 0; i < kUploads; ++i) {
    std::string json = R"({"t":{"t_2":"device"},"a":[)";
    for (int r = 0; r < kRecords; ++r) {
      json += std::string(r ? "," : "") + R"({"a_t":"2","a_1":")" +
              std::to_string(i * kRecords + r) + R"("})";
    }
    forms.push_back(logForm(json + "]}"));
  }
  // Every upload goes to both collectors; the threads of each walk the
  // uploads in the same order, so that the two copies arrive together.
  std::atomic<int> next[2] = {0, 0};
  std::atomic<int> unanswered{0};
  std::vector<std::thread> threads;
  for (int c = 0; c < 2; ++c) {
    for (int t = 0; t < kThreadsPerCollector; ++t) {
      threads.emplace_back([&, c] {
        for (int i; (i = next[c]++) < kUploads;) {
          int status = 0;
          for (int attempt = 0; attempt < 20 && status != 200; ++attempt) {
            status = postForm(fleet[c]->port(), "/log", forms[i]).status;
          }
          if (status != 200) ++unanswered;
        }
      });
    }
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(unanswered, 0);
  const StoreTotals totals = fleet[0]->store().totals();
  EXPECT_EQ(std::tuple(totals.uploads, totals.records, totals.replays),
            std::tuple(kUploads, kUploads * kRecords, kUploads));
  EXPECT_EQ(fleet[1]->store().records().size(), static_cast<std::size_t>(kUploads * kRecords));
}

TEST_P(CollectorFleetTest, AnswersAsOneCollectorWouldAndSaysWhenTheDatabaseIsBusy) {
  LocalCollectorOptions options;
  options.collector.trustedProxies = {"127.0.0.1"};
  std::array<LocalCollector*, 2> fleet = {&start(options), &start(options)};
  const std::string settings = "/settings?token=" + today() + "&uid=dev";
  for (int i = 0; i < 5; ++i) EXPECT_EQ(get(fleet[i % 2]->port(), settings).status, 200);
  for (auto* collector : fleet) {
    EXPECT_NE(get(collector->port(), "/received?uid=dev").body.find("\"settings\":5"),
              std::string::npos);
  }

  // Behind a trusted proxy the stored peer is the client the proxy names.
  std::string form = logForm(R"({"play_info":{"playUrl":"u"}})").replace(0, 8, "diagnosis_log");
  form.erase(form.find("&uid="));
  const HttpReply proxied =
      roundTrip(fleet[1]->port(),
                "POST /diagnosis HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(fleet[1]->port()) +
                    "\r\nX-Forwarded-For: 203.0.113.7\r\n"
                    "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                    std::to_string(form.size()) + "\r\n\r\n" + form);
  EXPECT_EQ(proxied.status, 200) << proxied.body;
  EXPECT_EQ(rows(fleet[0]->store().allDiagnoses(), &StoredDiagnosis::peer), "203.0.113.7");

  // Held by another client, the database fails an upload and a settings
  // request within the bounded wait, as busy (503, not 500), and the upload
  // is stored once it is free again.
  const std::string upload = logForm(R"({"t":{"t_2":"dev"},"a":[{"a_t":"2"}]})");
  options.store.wait = 200ms;
  LocalCollector& impatient = start(options);
  {
    auto holder = connect(GetParam(), location_,
                          GetParam() == Backend::kSqlite
                              ? "BEGIN IMMEDIATE"
                              : "BEGIN; LOCK TABLE uploads, settings_requests IN ACCESS "
                                "EXCLUSIVE MODE");
    for (const std::string& path : {"/log"s, settings}) {
      const auto began = std::chrono::steady_clock::now();
      const HttpReply busy =
          path == "/log" ? postForm(impatient.port(), path, upload) : get(impatient.port(), path);
      EXPECT_LT(std::chrono::steady_clock::now() - began, 1500ms) << path;
      EXPECT_EQ(busy.status, 503) << path << ": " << busy.body;
      EXPECT_NE(busy.head.find("Retry-After: 1"), std::string::npos) << busy.head;
    }
  }
  EXPECT_EQ(postForm(fleet[1]->port(), "/log", upload).status, 200);
  EXPECT_EQ(fleet[0]->store().totals().uploads, 1);
}

INSTANTIATE_TEST_SUITE_P(Backends, CollectorFleetTest,
                         ::testing::Values(Backend::kSqlite, Backend::kPostgres), backendName);

// A database the collector's first schema wrote, without a version: opened,
// it gains the new tables and columns and keeps what it holds.
TEST(SqliteStoreMigration, BringsAVersionOneDatabaseToTheCurrentSchema) {
  char pattern[] = "/tmp/qxlog-store-test.XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const std::string path = std::string(pattern) + "/old.db";
  connect(Backend::kSqlite, path, R"sql(
    CREATE TABLE uploads (id INTEGER PRIMARY KEY, received_at INTEGER NOT NULL,
      peer TEXT NOT NULL, token TEXT NOT NULL, device TEXT NOT NULL, user_id TEXT NOT NULL,
      header TEXT NOT NULL, record_count INTEGER NOT NULL);
    CREATE TABLE records (id INTEGER PRIMARY KEY, upload_id INTEGER NOT NULL REFERENCES
      uploads(id), position INTEGER NOT NULL, type TEXT NOT NULL, name TEXT NOT NULL,
      play_actions INTEGER NOT NULL, body TEXT NOT NULL);
    CREATE INDEX records_by_type ON records(type);
    CREATE TABLE upload_digests (digest TEXT PRIMARY KEY, upload_id INTEGER NOT NULL
      REFERENCES uploads(id), replays INTEGER NOT NULL DEFAULT 0);
    CREATE TABLE diagnoses (id INTEGER PRIMARY KEY, received_at INTEGER NOT NULL,
      peer TEXT NOT NULL, token TEXT NOT NULL, user_id TEXT NOT NULL, device TEXT NOT NULL,
      user_phone TEXT NOT NULL, velin TEXT NOT NULL, version TEXT NOT NULL, report TEXT NOT NULL);
    INSERT INTO uploads VALUES (1, 5, 'p', 't', 'old', 'u', '{}', 1);
    INSERT INTO records VALUES (1, 1, 0, '2', 'action', 0, '{"a_t":"2"}');
    INSERT INTO diagnoses VALUES (1, 5, 'p', 't', 'u', 'old', '', '', '',
      '{"play_summary":{"startup_ms":"9"}}');
  )sql");
  std::string error;
  auto store = CollectorStore::open(path, error);
  ASSERT_TRUE(store) << error;
  store->countSettingsRequest("old");
  EXPECT_EQ(std::tuple(store->totals().uploads, store->latestDiagnoses(5, true).size(),
                       store->settingsRequests("old"), store->records().size()),
            std::tuple(1, 1u, 1, 1u));
  std::filesystem::remove_all(pattern);
}

TEST(ClientAddress, TakesTheForwardedClientOnlyFromATrustedProxy) {
  const std::vector<std::string> proxies = {"127.0.0.1", "10.0.0.2"};
  const std::string proxy = "127.0.0.1:4000";
  // The peer, the header and its value, and the client taken.
  const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
      {proxy, "x-forwarded-for", "203.0.113.7", "203.0.113.7"},
      {proxy, "x-forwarded-for", "198.51.100.1, 203.0.113.7", "203.0.113.7"},
      // Past the trusted proxies in the chain to the first untrusted hop.
      {proxy, "x-forwarded-for", "198.51.100.1, 203.0.113.7, 10.0.0.2", "203.0.113.7"},
      {proxy, "forwarded", "for=192.0.2.43;proto=https, For=\"[2001:db8::17]:4711\"",
       "2001:db8::17"},
      {proxy, "forwarded", "for=192.0.2.43:80", "192.0.2.43"},
      // An untrusted connection's headers are ignored.
      {"192.0.2.9:4000", "x-forwarded-for", "203.0.113.7", "192.0.2.9:4000"},
      // Garbage or nothing forwarded: the connection's own address.
      {proxy, "x-forwarded-for", "not-an-address", proxy},
      {proxy, "forwarded", "for=unknown", proxy},
      {proxy, "x-forwarded-for", "", proxy},
      {proxy, "x-other", "203.0.113.7", proxy}};
  for (const auto& [peer, header, value, client] : cases) {
    HttpServerRequest request;
    request.peer = peer;
    request.headers[header] = value;
    EXPECT_EQ(resolveClientAddress(request, proxies), client)
        << peer << " " << header << ": " << value;
  }
}

}  // namespace
}  // namespace qxlog
