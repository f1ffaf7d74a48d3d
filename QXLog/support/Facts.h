// Pieces of QXLogHelper's facts that take their inputs explicitly, so that
// each can be exercised on paths, interfaces, URLs and moments of choice.
#ifndef QXLOG_SUPPORT_FACTS_H_
#define QXLOG_SUPPORT_FACTS_H_

#include <optional>
#include <string>
#include <string_view>

#include "QXLog/platform/Env.h"

namespace qxlog::support {

// What freeDiskSpace answers when the file system cannot be queried: the
// unsigned 64-bit all-ones value as a double, 2^64.
inline constexpr double kUnknownFreeSpace = 18446744073709551616.0;

// Size in bytes of the file system holding `path`, kept to single precision;
// writes the capacity (or the failure) to the env's console. 0 on failure.
double totalDiskSpaceOf(const platform::Env& env, const std::string& path);
// Bytes available to unprivileged users on the file system holding `path`;
// kUnknownFreeSpace on failure.
double freeDiskSpaceOf(const std::string& path);

// The dotted IPv4 address of the last IPv4 entry of the named interface, or "".
std::string ipv4AddressOfInterface(std::string_view name);

// The host part of an absolute URL ("scheme://[userinfo@]host[:port][/...]").
// Nothing when the text has no scheme or no authority; "" when the authority
// names no host. A bracketed IPv6 literal comes back with its brackets.
std::optional<std::string> hostOfUrl(std::string_view url);
// The first IPv4 address the resolver gives for a host name, dotted, or "".
std::string resolveIPv4(const std::string& host);

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_FACTS_H_
