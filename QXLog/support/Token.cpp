// The local day string and the day-bound upload token derived from it.
#include "QXLog/support/Token.h"

#include <cstdio>
#include <ctime>
#include <string>

#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Clock.h"
#include "QXLog/support/Codecs.h"

namespace qxlog::support {

std::string dayString(double wallSeconds) {
  const std::tm local = platform::clock()->localTime(wallSeconds);
  char text[48];
  const int length =
      std::snprintf(text, sizeof text, "%04lld-%02d-%02d",
                    static_cast<long long>(local.tm_year) + 1900, local.tm_mon + 1, local.tm_mday);
  return std::string(text, length > 0 ? static_cast<std::size_t>(length) : 0);
}

}  // namespace qxlog::support

namespace support = qxlog::support;

std::string QXLogHelper::obtainCurrentTime() {
  return support::dayString(qxlog::platform::wallSeconds());
}

std::string QXLogHelper::timeStamp(const Value&) {
  return support::dayString(qxlog::platform::wallSeconds());
}

QXLogHelper::NullableString QXLogHelper::tokenString(const NullableString& ignored) {
  // The argument is handed on and ignored there: the token depends on the day alone.
  std::string text = timeStamp(Value::fromNullable(ignored));
  text += support::kTokenSalt;
  return md5String(text);
}
