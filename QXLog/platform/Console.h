// The system console, where the library's console lines go unless its
// environment (Env) has a sink of its own: stderr, each line with a timestamp,
// the program name and pid:tid; $QXLOG_CONSOLE routes them to syslog or
// silences them.
#ifndef QXLOG_PLATFORM_CONSOLE_H_
#define QXLOG_PLATFORM_CONSOLE_H_

#include <functional>
#include <string>
#include <string_view>

#include "QXLog/platform/Clock.h"

namespace qxlog::platform {

using ConsoleSink = std::function<void(const std::string& line)>;

// Where lines go when no sink is installed, from $QXLOG_CONSOLE: "stderr" (the
// default, also for any unknown value), "syslog" (LOG_INFO, under the
// program's name) or "off".
enum class ConsoleDestination { kStderr, kSyslog, kOff };
ConsoleDestination consoleDestinationFromEnvironment(const char* setting);

// Writes one line where $QXLOG_CONSOLE says, timestamped on `clock`.
void writeToSystemConsole(const Clock& clock, std::string_view line);

// The program's short name, used as the default application name.
std::string programName();

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_CONSOLE_H_
