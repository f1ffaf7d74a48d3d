// Readable and machine-readable renderings of what the collector received.
#ifndef QXLOG_COLLECTOR_PRINT_REPORT_H_
#define QXLOG_COLLECTOR_PRINT_REPORT_H_

#include <cstdint>
#include <optional>
#include <string>

#include "QXLog/QXLogValue.h"
#include "collector/store/CollectorStore.h"

namespace qxlog::collector {

// Text fit for one log line: valid UTF-8, with line breaks, tabs and other
// control characters written as \n, \r, \t and \xNN, so that what a client
// sends cannot forge or break a line.
std::string printable(std::string_view text);

// JSON indented by two spaces, keys in their original order.
std::string prettyJson(const Value& value);
// Nothing when `text` is not JSON.
std::optional<std::string> prettyJson(const std::string& text);

// One line per record, named by its type; a play header is followed by its
// folded play actions, one per line and indented. `indent` prefixes each line.
// `explain` adds, under each line, every key with its value and meaning.
std::string describeRecord(const Dictionary& record, const std::string& indent = "  ",
                           bool explain = false);
// The header once, then each record.
std::string describeUpload(int64_t id, const UploadRow& upload, bool explain = false);
// With `explain`, an end-of-play summary's keys follow with their meanings.
std::string describeDiagnosis(int64_t id, const DiagnosisRow& diagnosis, bool explain = false);

// One compact JSON object per line, for scripts.
std::string uploadJsonLine(int64_t id, const UploadRow& upload);
std::string diagnosisJsonLine(int64_t id, const DiagnosisRow& diagnosis);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_PRINT_REPORT_H_
