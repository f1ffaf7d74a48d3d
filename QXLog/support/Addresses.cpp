// Network facts: the device's "en0" IPv4 address and a host's IPv4 address.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <string>
#include <string_view>

#include "QXLog/QXLogHelper.h"
#include "QXLog/support/Facts.h"

namespace qxlog::support {
namespace {

std::string dotted(const in_addr& address) {
  char text[INET_ADDRSTRLEN] = {};
  if (inet_ntop(AF_INET, &address, text, sizeof text) == nullptr) return std::string();
  return text;
}

bool isSchemeChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '-' || c == '.';
}

}  // namespace

std::string ipv4AddressOfInterface(std::string_view name) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return std::string();
  std::string result;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_name == nullptr) continue;
    if (entry->ifa_addr->sa_family != AF_INET || name != entry->ifa_name) continue;
    // A later entry replaces an earlier one: the last address wins.
    sockaddr_in address{};
    std::memcpy(&address, entry->ifa_addr, sizeof address);
    result = dotted(address.sin_addr);
  }
  freeifaddrs(list);
  return result;
}

std::optional<std::string> hostOfUrl(std::string_view url) {
  // scheme ":" "//" authority, the scheme starting with a letter.
  const std::size_t colon = url.find(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  const char first = url[0];
  if (!((first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z'))) return std::nullopt;
  for (std::size_t i = 1; i < colon; ++i) {
    if (!isSchemeChar(url[i])) return std::nullopt;
  }
  std::string_view rest = url.substr(colon + 1);
  if (!rest.starts_with("//")) return std::nullopt;
  rest.remove_prefix(2);
  std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  const std::size_t at = authority.rfind('@');
  if (at != std::string_view::npos) authority.remove_prefix(at + 1);
  if (authority.starts_with('[')) {
    const std::size_t close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    return std::string(authority.substr(0, close + 1));
  }
  return std::string(authority.substr(0, authority.find(':')));
}

std::string resolveIPv4(const std::string& host) {
  if (host.empty()) return std::string();
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* answer = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &answer) != 0 || answer == nullptr) {
    return std::string();
  }
  std::string result;
  if (answer->ai_addr != nullptr && answer->ai_addrlen >= sizeof(sockaddr_in)) {
    sockaddr_in address{};
    std::memcpy(&address, answer->ai_addr, sizeof address);
    result = dotted(address.sin_addr);
  }
  freeaddrinfo(answer);
  return result;
}

}  // namespace qxlog::support

namespace support = qxlog::support;

std::string QXLogHelper::lookupHostIPAddressForURL(const NullableString& url) {
  if (!url) return std::string();
  const std::optional<std::string> host = support::hostOfUrl(*url);
  // No host, or an IPv6 literal, which an IPv4 lookup cannot answer.
  if (!host || host->empty() || host->front() == '[') return std::string();
  return support::resolveIPv4(*host);
}

std::string QXLogHelper::getIPAddress() {
  return support::ipv4AddressOfInterface("en0");
}
