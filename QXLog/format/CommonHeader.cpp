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

// A server clock or an elapsed time beyond 2^53 ms (285 000 years either side
// of 1970, and the last integer a double holds exactly) is no time a clock
// keeps, and sums of such values can leave the 64-bit range: the correction is
// then left out, as before any settings answer, and the send time is the local
// time. Within the bound the sum is exact and cannot overflow.
std::string QXLogMessageFormat::returnsSendTime(double localMillis) const {
  constexpr int64_t kMostMillis = int64_t{1} << 53;
  auto outOfBound = [](int64_t millis) { return millis > kMostMillis || millis < -kMostMillis; };
  int64_t elapsed = serial::truncateToInt64(localMillis - serverInfoUpdateTime());
  int64_t serverNow = serial::integerValue(current_time());
  if (outOfBound(serverNow) || outOfBound(elapsed)) {
    return serial::formatInteger(serial::truncateToInt64(localMillis));
  }
  return serial::formatInteger(serverNow + elapsed);
}
