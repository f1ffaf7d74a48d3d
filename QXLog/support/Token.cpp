// The local day string and the day-bound upload token derived from it.
#include "QXLog/support/Token.h"

#include <cstdio>
#include <ctime>
#include <string>

#include "QXLog/QXLogHelper.h"
#include "QXLog/support/Codecs.h"

namespace qxlog::support {

std::string dayString(const platform::Clock& clock, double wallSeconds) {
  const std::tm local = clock.localTime(wallSeconds);
  char text[48];
  const int length =
      std::snprintf(text, sizeof text, "%04lld-%02d-%02d",
                    static_cast<long long>(local.tm_year) + 1900, local.tm_mon + 1, local.tm_mday);
  return std::string(text, length > 0 ? static_cast<std::size_t>(length) : 0);
}

std::string today(const platform::Clock& clock) {
  return dayString(clock, clock.wallSeconds());
}

NullableString dayToken(const platform::Clock& clock) {
  std::string text = today(clock);
  text += kTokenSalt;
  return QXLogHelper::md5String(text);
}

}  // namespace qxlog::support
