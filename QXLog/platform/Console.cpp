#include "QXLog/platform/Console.h"

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace qxlog::platform {
namespace {

std::mutex g_mutex;

std::string timestampNow(const Clock& clock) {
  double now = clock.wallSeconds();
  std::tm local = clock.localTime(now);
  int millis = static_cast<int>(std::fmod(now, 1.0) * 1000.0);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis);
  return text;
}

void writeToStderr(const Clock& clock, const std::string& line) {
  std::string out = timestampNow(clock) + " " + programName() + "[" + std::to_string(getpid()) +
                    ":" + std::to_string(static_cast<long>(syscall(SYS_gettid))) + "] " + line +
                    "\n";
  std::fwrite(out.data(), 1, out.size(), stderr);
}

void writeToSyslog(const std::string& line) {
  ::syslog(LOG_INFO, "%s", line.c_str());
}

}  // namespace

ConsoleDestination consoleDestinationFromEnvironment(const char* setting) {
  std::string_view value = setting != nullptr ? setting : "";
  if (value == "off") return ConsoleDestination::kOff;
  if (value == "syslog") return ConsoleDestination::kSyslog;
  return ConsoleDestination::kStderr;
}

void writeToSystemConsole(const Clock& clock, std::string_view line) {
  // Read once: where the lines go is the process's choice, made at start.
  static const ConsoleDestination destination =
      consoleDestinationFromEnvironment(std::getenv("QXLOG_CONSOLE"));
  std::string text(line);
  std::lock_guard lock(g_mutex);
  if (destination == ConsoleDestination::kStderr) {
    writeToStderr(clock, text);
  } else if (destination == ConsoleDestination::kSyslog) {
    writeToSyslog(text);
  }
}

std::string programName() {
  return program_invocation_short_name;
}

}  // namespace qxlog::platform
