// Play header, play-action and trailer records.
#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Facts.h"
#include "QXLog/support/Time.h"
#include "QXLog/support/UrlEncoding.h"

namespace {

namespace serial = qxlog::serial;
using qxlog::Dictionary;
using qxlog::NullableString;
using serial::describe;

// The nine keys shared by play-action and trailer records: the record time,
// "1", the six event values in order, and the total play time.
Dictionary playStateRecord(const std::string& recordTime,
                           std::initializer_list<const NullableString*> events,
                           const std::string& total) {
  Dictionary record;
  record.reserve(9);
  record.setString("p_0", recordTime);
  record.setString("p_1", "1");
  int index = 2;
  for (const NullableString* event : events) {
    record.setString("p_" + std::to_string(index++), *event);
  }
  record.setString("p_8", total);
  return record;
}

}  // namespace

QXLogMessageFormat::Dictionary QXLogMessageFormat::playLog(const NullableString& playLog,
                                                           const NullableString& view_source,
                                                           const NullableString& movie_id,
                                                           bool isDownload,
                                                           const NullableString& isPcdn,
                                                           const NullableString& videoType) const {
  // A downloaded item plays from a local path, recorded as it is; a streamed
  // http(s) address is recorded encoded, with the address its host resolves to
  // (a blocking lookup on this thread). Anything else is not recorded.
  std::string hostAddress;
  std::string recordedUrl;
  if (isDownload) {
    hostAddress = "localhost";
    recordedUrl = playLog.value_or("");
  } else if (playLog && playLog->starts_with("http")) {
    recordedUrl = qxlog::support::percentEncodeQuery(*playLog);
    hostAddress = qxlog::support::ipv4AddressForUrl(env().facts(), recordedUrl);
  }
  std::string deviceAddress = qxlog::support::ipv4AddressOfInterface(env().facts(), "en0");

  Dictionary header;
  header.reserve(10);
  header.setString("a_t", videoType ? *videoType : "1");
  header.setString("a_1", hostAddress);
  header.setString("a_3", deviceAddress);
  header.setString("a_4", networkState());
  header.setString("a_5", "0");
  header.setString("a_6", view_source);
  header.setString("a_7", movie_id);
  header.setString("a_8", recordedUrl);
  header.setString("a_9", isPcdn ? *isPcdn : "1");
  return header;
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::playActionLog(
    const NullableString& playActionLog, const NullableString& playStatu,
    const NullableString& startTime, const NullableString& endTime,
    const NullableString& startPosition, const NullableString& endPosition,
    const NullableString& playTime) {
  {
    // A buffering report (type "5") that repeats the previous record's start
    // time is dropped as an empty record. Any record moves the start time on.
    std::lock_guard lock(mutex_);
    if (playActionLog == "5" && buffer_start_time_ && startTime &&
        *buffer_start_time_ == *startTime) {
      return Dictionary();
    }
    buffer_start_time_ = startTime;
  }
  std::string recordTime =
      returnsSendTime(static_cast<double>(qxlog::support::currentMillis(env().clock())));
  // (The stored "play_total_time" default that used to be read here has no
  // effect on the record and is not read.)

  // The play time is offset by 2000 ms and never goes below 0. The sum wraps
  // rather than overflow at the top of the range.
  int64_t played = serial::longLongValue(playTime);
  if (played < -2000) played = -2000;
  auto total = static_cast<int64_t>(static_cast<uint64_t>(played) + 2000u);
  std::string totalText = serial::formatInteger(total);

  env().consoleWrite("Ostra->~~opetype(" + describe(playActionLog) + ")~~totaltime(" + totalText +
                     ")~buffer_start_time(" + describe(startTime) + ")~~~~recordTimestring(" +
                     recordTime + ")");

  return playStateRecord(
      recordTime, {&playActionLog, &playStatu, &startTime, &endTime, &startPosition, &endPosition},
      totalText);
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::playTrailerLog(
    const NullableString& playTrailerLog, const NullableString& is_play_status,
    const NullableString& buffer_start_time, const NullableString& buffer_end_time,
    const NullableString& start_position, const NullableString& end_position,
    const NullableString& play_total_time) const {
  std::string recordTime =
      returnsSendTime(static_cast<double>(qxlog::support::currentMillis(env().clock())));

  // Seconds to milliseconds in 32 bits: the product wraps modulo 2^32.
  std::string total = "0";
  int32_t seconds = serial::intValue(play_total_time);
  if (seconds >= 1) {
    auto millis = static_cast<int32_t>(static_cast<uint32_t>(seconds) * 1000u);
    total = serial::formatInteger(millis);
  }

  env().consoleWrite("--播放小视频日志-" + describe(playTrailerLog) + "----" +
                     describe(is_play_status) + "---" + describe(buffer_start_time) + "----" +
                     describe(buffer_end_time) + "---" + describe(start_position) + "--" +
                     describe(end_position) + "---" + total);

  return playStateRecord(recordTime,
                         {&playTrailerLog, &is_play_status, &buffer_start_time, &buffer_end_time,
                          &start_position, &end_position},
                         total);
}
