// Launch, network and action records.
#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Facts.h"
#include "QXLog/support/Time.h"

namespace {

namespace support = qxlog::support;
namespace serial = qxlog::serial;

// Bytes to gigabytes, one factor of 1/1024 at a time.
double gigabytes(double bytes) {
  return bytes * 0.0009765625 * 0.0009765625 * 0.0009765625;
}

}  // namespace

QXLogMessageFormat::Dictionary QXLogMessageFormat::launchLog(const NullableString& launchLog,
                                                             const NullableString& start_time,
                                                             const NullableString& push_id) const {
  // Whole seconds on the local clock, scaled to milliseconds: a launch is
  // stamped to the second and not corrected to the server's clock.
  int64_t seconds = serial::truncateToInt64(env().wallSeconds());
  // Scaled modulo 2^64 so that an absurd clock cannot overflow.
  auto launchMillis = static_cast<int64_t>(static_cast<uint64_t>(seconds) * 1000u);
  std::string totalSize = serial::formatGeneral(
      gigabytes(support::totalDiskSpaceOf(env(), env().documentsDirectory())));
  std::string freeSize =
      serial::formatGeneral(gigabytes(support::freeDiskSpaceOf(env().facts(), "/var")));
  std::string deviceAddress = support::ipv4AddressOfInterface(env().facts(), "en0");

  Dictionary record;
  record.reserve(12);
  record.setString("a_t", "0");
  record.setString("a_0", serial::formatInteger(launchMillis));
  record.setString("a_1", launchLog);
  record.setString("a_2", start_time);
  record.setString("a_3", push_id);
  record.setString("a_4", deviceAddress);
  record.setString("a_5", networkState());
  record.setString("a_6", city());
  record.setString("a_7", totalSize);
  record.setString("a_8", freeSize);
  record.setString("a_9", "");
  record.setString("a_10", "");
  return record;
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::networkLog(
    const NullableString& networkLog, const NullableString& wasteTime,
    const NullableString& errorCode) const {
  std::string sendTime =
      returnsSendTime(static_cast<double>(qxlog::support::currentMillis(env().clock())));
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
  uint64_t now = qxlog::support::currentMillis(env().clock());
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
