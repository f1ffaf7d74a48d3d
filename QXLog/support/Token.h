// The day string and the day token that uploads and the settings request
// carry.
#ifndef QXLOG_SUPPORT_TOKEN_H_
#define QXLOG_SUPPORT_TOKEN_H_

#include <string>

namespace qxlog::support {

// The local calendar date of a moment as "yyyy-MM-dd".
std::string dayString(double wallSeconds);

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_TOKEN_H_
