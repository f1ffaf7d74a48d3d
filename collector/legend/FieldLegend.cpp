#include "collector/legend/FieldLegend.h"

#include <array>
#include <span>

#include "QXLog/serial/Text.h"

namespace qxlog::collector {
namespace {

struct Field {
  std::string_view key;
  std::string_view meaning;
};

struct Table {
  LegendTable id;
  std::string_view title;
  std::span<const Field> fields;
};

constexpr Field kHeader[] = {
    {"t_1", "terminal category (\"2\" unless the host sets it)"},
    {"t_2", "device identifier (idfa)"},
    {"t_3", "device model"},
    {"t_4", "system version"},
    {"t_5", "distribution channel"},
    {"t_6", "device identifier again (the same as t_2)"},
    {"t_7", "user's phone"},
    {"t_8", "VIP state"},
    {"t_9", "application bundle version"},
    {"t_10", "application version"},
    {"t_11", "always empty"},
    {"t_12", "user id"},
};

constexpr Field kLaunch[] = {
    {"a_t", "record type: 0 launch"},
    {"a_0", "launch time, ms since 1970 (whole seconds, local clock)"},
    {"a_1", "launch value given by the host"},
    {"a_2", "start time given by the host"},
    {"a_3", "push id (\"\" without one)"},
    {"a_4", "device's IP address"},
    {"a_5", "network state"},
    {"a_6", "city"},
    {"a_7", "total disk, GB"},
    {"a_8", "free disk, GB"},
    {"a_9", "always empty"},
    {"a_10", "always empty"},
};

constexpr Field kAction[] = {
    {"a_t", "record type: 2 action"},
    {"a_0", "send time, ms since 1970 on the server's clock"},
    {"a_1", "action name"},
    {"a_2", "action time, ms since 1970 (local clock)"},
    {"a_3", "the same moment, ms since 1970 (local clock)"},
    {"a_4", "always \"0\""},
    {"a_5", "item index (movie index)"},
};

constexpr Field kNetwork[] = {
    {"a_t", "record type: 7 network"},
    {"a_0", "send time, ms since 1970 on the server's clock"},
    {"a_1", "time the request took (waste time), as the host gave it"},
    {"a_2", "error code"},
    {"a_3", "request (network log key, e.g. its URL)"},
};

constexpr Field kDownload[] = {
    {"a_t", "record type: 3 download"},
    {"a_0", "report time, ms since 1970 on the server's clock"},
    {"a_1", "IPv4 address of the download URL's host"},
    {"a_3", "device's IP address"},
    {"a_4", "network state"},
    {"a_5", "always \"0\""},
    {"a_6", "always \"0\""},
    {"a_7", "item id"},
    {"a_8", "download URL, percent-encoded"},
    {"a_9", "download start time, ms since 1970 on the server's clock"},
    {"a_10", "report time again (the same as a_0)"},
    {"a_11", "download state"},
    {"a_12", "amount downloaded, MB (\" M\" appended)"},
    {"a_13", "average rate since the start, KB/s"},
    {"a_14", "storage path"},
};

constexpr Field kPlay[] = {
    {"a_t", "video type: 1 film, 5 short video, 6 channel"},
    {"a_1", "IP address of the play URL's host (\"localhost\" for a download)"},
    {"a_3", "device's IP address"},
    {"a_4", "network state"},
    {"a_5", "always \"0\""},
    {"a_6", "view source (where the play was started from)"},
    {"a_7", "movie id"},
    {"a_8", "play URL, percent-encoded (the path for a download)"},
    {"a_9", "PCDN flag (\"1\" unless given)"},
    {"p", "the play's actions, in order"},
    {"play_id", "play id: every part of one play (header copies, summary) carries it"},
};

constexpr Field kPlayAction[] = {
    {"p_0", "record time, ms since 1970 on the server's clock"},
    {"p_1", "always \"1\""},
    {"p_2", "operation type (5 = buffering)"},
    {"p_3", "play status"},
    {"p_4", "start time, ms since 1970"},
    {"p_5", "end time, ms since 1970"},
    {"p_6", "start position, ms of media time"},
    {"p_7", "end position, ms of media time"},
    {"p_8", "play time, ms (the host's value plus 2000)"},
    {"from_height", "quality change: the height shown before, pixels (0 unknown)"},
    {"to_height", "quality change: the height shown now, pixels (0 unknown)"},
    {"bitrate_bps", "quality change: the bitrate shown now, bits/s (0 unknown)"},
};

constexpr Field kPlaySummary[] = {
    {"play_id", "play id, as in the play's header copies"},
    {"movie_id", "movie id, as the play began"},
    {"video_type", "video type: 1 film, 5 short video, 6 channel"},
    {"view_source", "view source (where the play was started from)"},
    {"url", "play URL, as given"},
    {"cause", "the error's cause; \"\" unless the play failed"},
    {"startup_ms", "begin to first frame, ms; without one, begin to the end"},
    {"rebuffer_count", "rebuffering spans after the first frame"},
    {"rebuffer_ms", "their total, ms"},
    {"seek_count", "seeks"},
    {"seek_avg_ms", "their average time, ms"},
    {"played_ms", "time frames moved, ms (outside rebuffering and seeks)"},
    {"exit_before_start", "\"1\" when the host ended the play before its first frame"},
    {"failed", "\"1\" when an error ended the play"},
    {"rendition_switches", "quality changes after the first frame"},
    {"average_bitrate_bps", "bitrate weighted by the time played at each, bits/s (0 unknown)"},
    {"top_height", "the highest rendition's height, pixels (0 unknown)"},
    {"ended_by_restart",
     "\"1\" when the play's run stopped first: the next run sent it, ended at its last moment "
     "known"},
};

constexpr std::array<Table, 8> kTables = {{
    {LegendTable::kHeader, "header (once per upload)", kHeader},
    {LegendTable::kLaunch, "launch record", kLaunch},
    {LegendTable::kAction, "action record", kAction},
    {LegendTable::kNetwork, "network record", kNetwork},
    {LegendTable::kDownload, "download record", kDownload},
    {LegendTable::kPlay, "play header (film, short video, channel)", kPlay},
    {LegendTable::kPlayAction, "play action (under \"p\")", kPlayAction},
    {LegendTable::kPlaySummary, "end-of-play summary (a diagnosis's \"play_summary\")",
     kPlaySummary},
}};

const Table& tableOf(LegendTable id) {
  return kTables[static_cast<std::size_t>(id)];
}

std::string text(const Dictionary& record, std::string_view key) {
  const Value* value = record.find(key);
  return value != nullptr ? serial::describe(*value) : std::string();
}

std::string explainFields(LegendTable table, const Dictionary& record, const std::string& indent) {
  std::string out;
  for (const auto& [key, value] : record) {
    if (key == "p") continue;
    std::string line = indent + key;
    line.resize(std::max(line.size(), indent.size() + 6), ' ');
    std::string_view meaning = meaningOf(table, key);
    out += line + serial::describe(value);
    if (!meaning.empty()) out += "   # " + std::string(meaning);
    out += "\n";
  }
  return out;
}

}  // namespace

LegendTable legendTableOf(const Dictionary& record) {
  std::string type = text(record, "a_t");
  const Value* actions = record.find("p");
  if ((actions != nullptr && actions->asArray() != nullptr) || type == "1" || type == "5" ||
      type == "6") {
    return LegendTable::kPlay;
  }
  if (type == "0") return LegendTable::kLaunch;
  if (type == "3") return LegendTable::kDownload;
  if (type == "7") return LegendTable::kNetwork;
  return LegendTable::kAction;
}

std::string_view meaningOf(LegendTable table, std::string_view key) {
  for (const Field& field : tableOf(table).fields) {
    if (field.key == key) return field.meaning;
  }
  return {};
}

std::string legendText() {
  std::string out;
  for (const Table& table : kTables) {
    out += std::string(table.title) + "\n";
    for (const Field& field : table.fields) {
      std::string key(field.key);
      key.resize(6, ' ');
      out += "  " + key + std::string(field.meaning) + "\n";
    }
  }
  return out;
}

std::string explainRecord(const Dictionary& record, const std::string& indent) {
  LegendTable table = legendTableOf(record);
  std::string out = explainFields(table, record, indent);
  const Value* actions = record.find("p");
  if (actions == nullptr || actions->asArray() == nullptr) return out;
  for (const Value& action : *actions->asArray()) {
    if (const Dictionary* fields = action.asDictionary()) {
      out += indent + "play action\n" +
             explainFields(LegendTable::kPlayAction, *fields, indent + "  ");
    }
  }
  return out;
}

std::string explainHeader(const Dictionary& header, const std::string& indent) {
  return explainFields(LegendTable::kHeader, header, indent);
}

std::string explainPlaySummary(const Value& report, const std::string& indent) {
  const Dictionary* fields = report.asDictionary();
  const Value* summary = fields != nullptr ? fields->find("play_summary") : nullptr;
  if (summary == nullptr || summary->asDictionary() == nullptr) return {};
  return indent + "play summary\n" +
         explainFields(LegendTable::kPlaySummary, *summary->asDictionary(), indent + "  ");
}

}  // namespace qxlog::collector
