// The one sink of every console line the library writes. By default a line
// goes to stderr with a timestamp, the program name and pid:tid ($QXLOG_CONSOLE
// routes it to syslog or silences it); a host (or a test) can take the lines
// instead.
#ifndef QXLOG_PLATFORM_CONSOLE_H_
#define QXLOG_PLATFORM_CONSOLE_H_

#include <functional>
#include <string>
#include <string_view>

namespace qxlog::platform {

using ConsoleSink = std::function<void(const std::string& line)>;

// Where lines go when no sink is installed, from $QXLOG_CONSOLE: "stderr" (the
// default, also for any unknown value), "syslog" (LOG_INFO, under the
// program's name) or "off".
enum class ConsoleDestination { kStderr, kSyslog, kOff };
ConsoleDestination consoleDestinationFromEnvironment(const char* setting);

void consoleWrite(std::string_view line);
// An empty sink restores the stderr default.
void setConsoleSink(ConsoleSink sink);

// The program's short name, used as the default application name.
std::string programName();

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_CONSOLE_H_
