#include "tests/support/PostgresServer.h"

#include <libpq-fe.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>

namespace qxlog::testing {
namespace {

const std::string kScript = std::string(QXLOG_TEST_FIXTURES) + "/../../scripts/pg-test-server.sh";

std::string readUri(const std::string& dir) {
  std::ifstream file(dir + "/uri");
  std::string uri;
  std::getline(file, uri);
  return uri;
}

// Stops the server this process started, at exit.
struct OwnServer {
  std::string dir;
  ~OwnServer() {
    if (dir.empty()) return;
    std::system(("'" + kScript + "' stop '" + dir + "'").c_str());
    ::rmdir(dir.substr(0, dir.rfind('/')).c_str());
  }
};

std::string serverUri(std::string& why) {
  static std::mutex mutex;
  static OwnServer own;
  static std::string uri;
  std::lock_guard lock(mutex);
  if (!uri.empty()) return uri;
  if (const char* shared = std::getenv("QXLOG_TEST_POSTGRES_DIR")) {
    uri = readUri(shared);
    if (uri.empty()) why = "no PostgreSQL server for the tests (see " + std::string(shared) + ")";
    return uri;
  }
  char pattern[] = "/tmp/qxlog-test-pg.XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    why = "mkdtemp failed";
    return "";
  }
  own.dir = std::string(pattern) + "/server";
  if (std::system(("'" + kScript + "' start '" + own.dir + "' >/dev/null").c_str()) != 0) {
    why = "scripts/pg-test-server.sh failed";
    return "";
  }
  uri = readUri(own.dir);
  if (uri.empty()) why = "PostgreSQL is not installed";
  return uri;
}

// Runs one SQL text on the database at `uri`; false with the reason in `why`.
bool runPostgres(const std::string& uri, const std::string& sql, std::string& why) {
  PGconn* connection = PQconnectdb(uri.c_str());
  bool ok = PQstatus(connection) == CONNECTION_OK;
  if (ok) {
    PGresult* result = PQexec(connection, sql.c_str());
    ok = PQresultStatus(result) == PGRES_COMMAND_OK || PQresultStatus(result) == PGRES_TUPLES_OK;
    PQclear(result);
  }
  if (!ok) why = PQerrorMessage(connection);
  PQfinish(connection);
  return ok;
}

}  // namespace

std::string freshPostgresDatabase(std::string& why) {
  const std::string uri = serverUri(why);
  if (uri.empty()) return "";
  static std::atomic<int> counter{0};
  const std::string schema = "test_" + std::to_string(::getpid()) + "_" + std::to_string(counter++);
  if (!runPostgres(uri, "CREATE SCHEMA " + schema, why)) return "";
  return uri + "&options=-csearch_path%3D" + schema;
}

}  // namespace qxlog::testing
