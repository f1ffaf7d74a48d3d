// The queue files in the Documents directory. The capitalisation of the names
// ("User" beside "USER") is what existing installations have on disk.
#ifndef QXLOG_CENTER_QUEUEFILENAMES_H_
#define QXLOG_CENTER_QUEUEFILENAMES_H_

#include <string_view>

namespace qxlog::center {

inline constexpr std::string_view kActionQueueFile = "UserStatisticalLog.plist";
inline constexpr std::string_view kPlayQueueFile = "USERPlayActionStatisticalLog.plist";
inline constexpr std::string_view kStartTimeFile = "USERMovieStartTimeLog.plist";

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_QUEUEFILENAMES_H_
