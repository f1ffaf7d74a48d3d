// The download record.
#include "QXLog/format/DownloadRecord.h"

#include <cfloat>
#include <cmath>
#include <limits>

#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Facts.h"
#include "QXLog/support/Time.h"
#include "QXLog/support/UrlEncoding.h"

namespace {

namespace serial = qxlog::serial;

// The single-precision value of a text's leading number; out of range reads as
// an infinity of the same sign, as a float parse would give.
float floatValue(std::string_view text) {
  double value = serial::doubleValue(text);
  if (value > FLT_MAX) return HUGE_VALF;
  if (value < -FLT_MAX) return -HUGE_VALF;
  return static_cast<float>(value);
}

// IEEE division, with division by zero spelled out: a positive amount over
// zero is inf, zero over zero is nan.
float divide(float dividend, float divisor) {
  if (divisor != 0.0f) return dividend / divisor;
  if (dividend == 0.0f || std::isnan(dividend)) return std::numeric_limits<float>::quiet_NaN();
  return dividend > 0.0f ? HUGE_VALF : -HUGE_VALF;
}

}  // namespace

namespace qxlog::format {

Dictionary downloadRecord(const QXLogMessageFormat& format, const DownloadReport& report,
                          const NullableString& savedStartTime) {
  const NullableString& downLog = report.downLog;
  const NullableString& movieUrl = report.movieUrl;
  const NullableString& downsState = report.downsState;
  const NullableString& dataAmount = report.dataAmount;
  const NullableString& storagePath = report.storagePath;
  std::string deviceAddress = qxlog::support::ipv4AddressOfInterface(format.env().facts(), "en0");

  // Only http and https addresses are recorded, encoded, with the address
  // their host resolves to (a blocking lookup on this thread).
  std::string hostAddress;
  std::string encodedUrl;
  if (!QXLogHelper::isEmptyOrNull(Value::fromNullable(movieUrl)) && movieUrl->starts_with("http")) {
    encodedUrl = qxlog::support::percentEncodeQuery(*movieUrl);
    hostAddress = qxlog::support::ipv4AddressForUrl(format.env().facts(), encodedUrl);
  }

  // The start time the host saved for this item; missing or non-numeric is 0.
  int64_t startMillis = downLog ? serial::longLongValue(savedStartTime) : 0;
  std::string start = format.returnsSendTime(static_cast<double>(startMillis));
  uint64_t nowMillis = qxlog::support::currentMillis(format.env().clock());
  std::string now = format.returnsSendTime(static_cast<double>(nowMillis));

  // Elapsed whole seconds since the start, wrapping rather than overflowing.
  int64_t nowSigned = serial::longLongValue(serial::formatUnsigned(nowMillis));
  auto elapsedMillis =
      static_cast<int64_t>(static_cast<uint64_t>(nowSigned) - static_cast<uint64_t>(startMillis));
  int64_t elapsedSeconds = elapsedMillis / 1000;

  // The amount is rounded to two decimals before the rate uses it. The rate
  // (kilobytes per second) is left unguarded: under a second it reads inf or nan.
  std::string amount = serial::formatFixed(floatValue(dataAmount.value_or("")), 2);
  float rate = divide(floatValue(amount), static_cast<float>(elapsedSeconds)) * 1024.0f;
  std::string rateText = serial::formatFixed(rate, 2);

  // Amounts are in megabytes; the unit is added unless the host wrote one.
  NullableString amountText = dataAmount;
  if (!dataAmount || dataAmount->find('M') == std::string::npos) {
    amountText = serial::describe(dataAmount) + " M";
  }

  Dictionary record;
  record.reserve(15);
  record.setString("a_t", "3");
  record.setString("a_0", now);
  record.setString("a_1", hostAddress);
  record.setString("a_3", deviceAddress);
  record.setString("a_4", format.networkState());
  record.setString("a_5", "0");
  record.setString("a_6", "0");
  record.setString("a_7", downLog);
  record.setString("a_8", encodedUrl);
  record.setString("a_9", start);
  record.setString("a_10", now);
  record.setString("a_11", downsState);
  record.setString("a_12", amountText);
  record.setString("a_13", rateText);
  record.setString("a_14", storagePath);
  return record;
}

}  // namespace qxlog::format

QXLogMessageFormat::Dictionary QXLogMessageFormat::downLog(
    const NullableString& downLog, const NullableString& movieUrl, const NullableString& downsState,
    const NullableString& dataAmount, const NullableString& storagePath,
    const NullableString& /*movieName: deliberately not recorded*/) const {
  NullableString savedStart;
  if (downLog && startTimeLookup_) savedStart = startTimeLookup_(*downLog);
  return qxlog::format::downloadRecord(
      *this, {downLog, movieUrl, downsState, dataAmount, storagePath}, savedStart);
}
