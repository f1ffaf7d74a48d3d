// The collector's store in an SQLite file (WAL): the embedded default.
// Readers run side by side; writers of one process queue on a mutex, and
// writers of other processes on SQLite's own lock, each for at most the
// store's bounded wait.
#ifndef QXLOG_COLLECTOR_STORE_SQLITESTORE_H_
#define QXLOG_COLLECTOR_STORE_SQLITESTORE_H_

#include <memory>
#include <string>

#include "collector/store/CollectorStore.h"

namespace qxlog::collector {

// Nothing on failure, with the reason in `error`.
std::unique_ptr<CollectorStore> openSqliteStore(const std::string& path,
                                                const StoreOptions& options, std::string& error);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_STORE_SQLITESTORE_H_
