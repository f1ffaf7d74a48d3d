// What the benchmarks and the benchmark host share: a host context on the
// format object, typical records, and a silent console.
#ifndef QXLOG_BENCH_BENCHSUPPORT_H_
#define QXLOG_BENCH_BENCHSUPPORT_H_

#include <cstddef>
#include <memory>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogValue.h"
#include "QXLog/platform/Env.h"

namespace qxlog::bench {

// The Documents directory named by QXLOG_BENCH_DIR (default "bench-data" in
// the working directory), created if missing.
std::string benchDirectory();

// Points the library at `directory`, silences the console, declares the
// environment ready and fills the format object as a host would.
void setUpHost(const std::string& directory);

// Puts a fresh log center in place, as after a restart, with the host's
// context set again and `batchSize` as its batch size, on `env`: by default
// the system's, which setUpHost points at its directory.
QXLogCenter& freshCenter(int64_t batchSize,
                         std::shared_ptr<platform::Env> env = platform::Env::Default());

// The arguments of the i-th typical action report.
std::string actionName(std::size_t i);
std::string movieIndex(std::size_t i);

// `count` typical action records, built by the library's own builder.
Array typicalRecords(std::size_t count);

}  // namespace qxlog::bench

#endif  // QXLOG_BENCH_BENCHSUPPORT_H_
