// Launch, network and action records.
#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/support/Time.h"

QXLogMessageFormat::Dictionary QXLogMessageFormat::launchLog(const NullableString&,
                                                             const NullableString&,
                                                             const NullableString&) const {
  return Dictionary();
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::networkLog(
    const NullableString& networkLog, const NullableString& wasteTime,
    const NullableString& errorCode) const {
  std::string sendTime = returnsSendTime(static_cast<double>(qxlog::currentMillis()));
  Dictionary record;
  record.reserve(5);
  record.setString("a_t", "7");
  record.setString("a_0", sendTime);
  record.setString("a_1", wasteTime);
  record.setString("a_2", errorCode);
  // The item goes last although the host passes it first.
  record.setString("a_3", networkLog);
  return record;
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::actionLog(
    const NullableString& actionLog, const NullableString& actionTime,
    const NullableString& movie_index) const {
  // One clock reading gives both the server-corrected and the local time.
  uint64_t now = qxlog::currentMillis();
  Dictionary record;
  record.reserve(7);
  record.setString("a_t", "2");
  record.setString("a_0", returnsSendTime(static_cast<double>(now)));
  record.setString("a_1", actionLog);
  record.setString("a_2", actionTime);
  record.setString("a_3", std::to_string(now));
  record.setString("a_4", "0");
  record.setString("a_5", movie_index);
  return record;
}
