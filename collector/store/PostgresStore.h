// The collector's store in PostgreSQL, through libpq: the store that several
// collectors share. Each connection bounds its waits with lock_timeout and
// statement_timeout; a connection that was lost is re-established on its
// next use.
#ifndef QXLOG_COLLECTOR_STORE_POSTGRESSTORE_H_
#define QXLOG_COLLECTOR_STORE_POSTGRESSTORE_H_

#include <memory>
#include <string>

#include "collector/store/CollectorStore.h"

namespace qxlog::collector {

// `uri` is a libpq connection URI ("postgresql://..." or "postgres://...").
// Nothing on failure, with the reason in `error`.
std::unique_ptr<CollectorStore> openPostgresStore(const std::string& uri,
                                                  const StoreOptions& options, std::string& error);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_STORE_POSTGRESSTORE_H_
