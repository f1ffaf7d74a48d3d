// Pieces of QXLogHelper's facts that take their inputs explicitly, so that
// each can be exercised on paths, interfaces, URLs and moments of choice. The
// facts come from the environment's DeviceFacts.
#ifndef QXLOG_SUPPORT_FACTS_H_
#define QXLOG_SUPPORT_FACTS_H_

#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"
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
double freeDiskSpaceOf(const platform::DeviceFacts& facts, const std::string& path);

// The dotted IPv4 address of the last IPv4 entry of the named interface, or "".
std::string ipv4AddressOfInterface(const platform::DeviceFacts& facts, std::string_view name);

// The host part of an absolute URL ("scheme://[userinfo@]host[:port][/...]").
// Nothing when the text has no scheme or no authority; "" when the authority
// names no host. A bracketed IPv6 literal comes back with its brackets.
std::optional<std::string> hostOfUrl(std::string_view url);
// The first IPv4 address the resolver gives for the URL's host, dotted; ""
// for nil, a URL without a host, or an IPv6 literal, which an IPv4 lookup
// cannot answer.
std::string ipv4AddressForUrl(const platform::DeviceFacts& facts, const NullableString& url);

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_FACTS_H_
