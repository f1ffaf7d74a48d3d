// The common header that heads every upload, and the server-corrected send time.
#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Text.h"

namespace serial = qxlog::serial;

QXLogMessageFormat::Dictionary QXLogMessageFormat::publicLog() const {
  Dictionary header;
  header.reserve(12);
  NullableString deviceId = idfa();
  header.setString("t_1", terminal_category());
  header.setString("t_2", deviceId);
  header.setString("t_3", devModel());
  header.setString("t_4", hardVer());
  header.setString("t_5", channel());
  header.setString("t_6", deviceId);
  header.setString("t_7", phone());
  header.setString("t_8", vipState());
  header.setString("t_9", bundleVer());
  header.setString("t_10", ver());
  header.setString("t_11", "");
  header.setString("t_12", uid());
  // A header without a numeric user id is traced, to spot hosts that forgot it.
  if (serial::intValue(uid()) == 0) env().consoleWrite(serial::describe(Value(header)));
  return header;
}

std::string QXLogMessageFormat::returnsSendTime(double localMillis) const {
  int64_t elapsed = serial::truncateToInt64(localMillis - serverInfoUpdateTime());
  int64_t serverNow = serial::integerValue(current_time());
  // Wrapping addition, done unsigned so that extreme values cannot overflow.
  uint64_t sum = static_cast<uint64_t>(serverNow) + static_cast<uint64_t>(elapsed);
  return serial::formatInteger(static_cast<int64_t>(sum));
}
