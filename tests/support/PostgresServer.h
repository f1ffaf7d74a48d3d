// A throwaway PostgreSQL server for the store's tests: the one ctest started
// for the whole run (QXLOG_TEST_POSTGRES_DIR, by scripts/pg-test-server.sh),
// or, when the test program runs alone, one it starts itself and stops at
// exit.
#ifndef QXLOG_TESTS_SUPPORT_POSTGRESSERVER_H_
#define QXLOG_TESTS_SUPPORT_POSTGRESSERVER_H_

#include <string>

namespace qxlog::testing {

// The URI of a fresh, empty schema on the server, for one test; "" with the
// reason in `why` when no PostgreSQL server can run here.
std::string freshPostgresDatabase(std::string& why);

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_SUPPORT_POSTGRESSERVER_H_
