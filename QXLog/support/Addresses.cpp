// Network facts: an interface's IPv4 address and a URL host's IPv4 address.
#include <string>
#include <string_view>

#include "QXLog/support/Facts.h"

namespace qxlog::support {
namespace {

bool isSchemeChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '-' || c == '.';
}

}  // namespace

std::string ipv4AddressOfInterface(const platform::DeviceFacts& facts, std::string_view name) {
  std::string result;
  // A later entry replaces an earlier one: the last address wins.
  for (const platform::DeviceFacts::InterfaceAddress& entry : facts.interfaceAddresses()) {
    if (entry.interface == name) result = entry.ipv4;
  }
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

std::string ipv4AddressForUrl(const platform::DeviceFacts& facts, const NullableString& url) {
  if (!url) return std::string();
  const std::optional<std::string> host = hostOfUrl(*url);
  if (!host || host->empty() || host->front() == '[') return std::string();
  return facts.resolveIPv4(*host);
}

}  // namespace qxlog::support
