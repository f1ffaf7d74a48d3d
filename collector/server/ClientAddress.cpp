#include "collector/server/ClientAddress.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>

namespace qxlog::collector {
namespace {

std::string trim(std::string text) {
  const auto space = [](unsigned char c) { return std::isspace(c) != 0; };
  text.erase(text.begin(), std::find_if_not(text.begin(), text.end(), space));
  text.erase(std::find_if_not(text.rbegin(), text.rend(), space).base(), text.end());
  return text;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = text.find(separator, start);
    parts.push_back(trim(text.substr(start, end - start)));
    if (end == std::string::npos) return parts;
    start = end + 1;
  }
}

bool isIpAddress(const std::string& text) {
  unsigned char buffer[16];
  return ::inet_pton(AF_INET, text.c_str(), buffer) == 1 ||
         ::inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

// The node of one "Forwarded" element's for= parameter, without quotes,
// brackets or port; "" when it has none.
std::string forwardedFor(const std::string& element) {
  for (const std::string& pair : split(element, ';')) {
    if (pair.size() < 4) continue;
    std::string key = pair.substr(0, 4);
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (key != "for=") continue;
    std::string node = pair.substr(4);
    if (node.size() >= 2 && node.front() == '"' && node.back() == '"') {
      node = node.substr(1, node.size() - 2);
    }
    return peerAddress(node);
  }
  return "";
}

}  // namespace

std::string peerAddress(const std::string& peer) {
  if (peer.starts_with("[")) {
    const std::size_t close = peer.find(']');
    return close == std::string::npos ? peer : peer.substr(1, close - 1);
  }
  const std::size_t colon = peer.find(':');
  if (colon != std::string::npos && peer.find(':', colon + 1) == std::string::npos) {
    return peer.substr(0, colon);
  }
  return peer;
}

std::string resolveClientAddress(const HttpServerRequest& request,
                                 const std::vector<std::string>& trustedProxies) {
  const auto trusted = [&](const std::string& address) {
    return std::find(trustedProxies.begin(), trustedProxies.end(), address) != trustedProxies.end();
  };
  if (!trusted(peerAddress(request.peer))) return request.peer;
  std::vector<std::string> hops;
  if (const std::string forwarded = request.header("forwarded"); !forwarded.empty()) {
    for (const std::string& element : split(forwarded, ',')) hops.push_back(forwardedFor(element));
  } else {
    for (const std::string& hop : split(request.header("x-forwarded-for"), ',')) {
      hops.push_back(peerAddress(hop));
    }
  }
  // The rightmost hop was added by the proxy next to the collector; walk
  // left past the trusted ones.
  for (auto hop = hops.rbegin(); hop != hops.rend(); ++hop) {
    if (hop->empty() || !isIpAddress(*hop)) return request.peer;
    if (!trusted(*hop)) return *hop;
  }
  return hops.empty() ? request.peer : hops.front();
}

}  // namespace qxlog::collector
