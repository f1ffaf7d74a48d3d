// What each coded key means: the common header's "t_" keys, each record
// type's "a_" keys, the play actions' "p_" keys and the end-of-play
// summary's keys. One table serves
// qxlog-decode --explain, the collector's printed report and the README.
#ifndef QXLOG_COLLECTOR_LEGEND_FIELDLEGEND_H_
#define QXLOG_COLLECTOR_LEGEND_FIELDLEGEND_H_

#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"

namespace qxlog::collector {

enum class LegendTable {
  kHeader,
  kLaunch,
  kAction,
  kNetwork,
  kDownload,
  kPlay,
  kPlayAction,
  kPlaySummary
};

// The table of a record, by its "a_t" and whether it is a play header.
LegendTable legendTableOf(const Dictionary& record);
// The key's meaning in the table; "" when the table has no such key.
std::string_view meaningOf(LegendTable table, std::string_view key);
// The whole legend as text, one table after another.
std::string legendText();
// One line per field of `record`: key, value and meaning, each line
// prefixed by `indent`; play actions under "p" are explained in turn.
std::string explainRecord(const Dictionary& record, const std::string& indent);
std::string explainHeader(const Dictionary& header, const std::string& indent);
// The end-of-play summary under a diagnosis report's "play_summary", one
// line per key with its meaning; "" when the report has none.
std::string explainPlaySummary(const Value& report, const std::string& indent);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_LEGEND_FIELDLEGEND_H_
