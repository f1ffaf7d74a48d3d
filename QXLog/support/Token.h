// The day string and the day token that uploads and the settings request
// carry.
#ifndef QXLOG_SUPPORT_TOKEN_H_
#define QXLOG_SUPPORT_TOKEN_H_

#include <string>

#include "QXLog/QXLogValue.h"
#include "QXLog/platform/Clock.h"

namespace qxlog::support {

// The local calendar date of a moment as "yyyy-MM-dd", in the clock's zone.
std::string dayString(const platform::Clock& clock, double wallSeconds);
// Today's date on the clock, and the token derived from it.
std::string today(const platform::Clock& clock);
NullableString dayToken(const platform::Clock& clock);

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_TOKEN_H_
