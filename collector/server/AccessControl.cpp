#include "collector/server/AccessControl.h"

#include <arpa/inet.h>
#include <openssl/evp.h>

#include <cctype>

#include "collector/decode/EnvelopeDecoder.h"

namespace qxlog::collector {
namespace {

std::string lowerCase(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// "Scheme rest" split at the first space, the scheme in lower case.
bool startsWithScheme(const std::string& header, std::string_view scheme, std::string& rest) {
  if (header.size() <= scheme.size() || header[scheme.size()] != ' ') return false;
  if (lowerCase(header.substr(0, scheme.size())) != scheme) return false;
  rest = header.substr(scheme.size() + 1);
  while (!rest.empty() && rest.front() == ' ') rest.erase(0, 1);
  while (!rest.empty() && rest.back() == ' ') rest.pop_back();
  return true;
}

constexpr const char* kSessionCookie = "qxlog_session";

// The session cookie's value: hex SHA-256 of the token under a fixed label,
// so that the cookie does not hold the token itself.
std::string sessionOf(const std::string& token) {
  if (token.empty()) return "";
  const std::string input = "qxlog-collector dashboard session\n" + token;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(input.data(), input.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    return "";
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 15];
  }
  return out;
}

}  // namespace

bool isLoopbackHost(const std::string& host) {
  if (lowerCase(host) == "localhost") return true;
  in_addr ipv4{};
  if (::inet_pton(AF_INET, host.c_str(), &ipv4) == 1) return (ntohl(ipv4.s_addr) >> 24) == 127;
  in6_addr ipv6{};
  std::string bare = host.size() > 2 && host.front() == '[' && host.back() == ']'
                         ? host.substr(1, host.size() - 2)
                         : host;
  return ::inet_pton(AF_INET6, bare.c_str(), &ipv6) == 1 && IN6_IS_ADDR_LOOPBACK(&ipv6);
}

bool sameSecret(std::string_view given, std::string_view expected) {
  // Every byte of `given` is compared, against `expected` repeated, so that
  // neither a prefix match nor the position of a difference shows in time.
  unsigned char difference = given.size() == expected.size() ? 0 : 1;
  if (expected.empty()) return false;
  for (std::size_t i = 0; i < given.size(); ++i) {
    difference |= static_cast<unsigned char>(given[i] ^ expected[i % expected.size()]);
  }
  return difference == 0;
}

AccessControl::AccessControl(std::string apiToken, std::string listenHost, int port)
    : apiToken_(std::move(apiToken)),
      session_(sessionOf(apiToken_)),
      listenHost_(std::move(listenHost)),
      port_(port) {}

bool AccessControl::hasSession(const std::string& cookies) const {
  // "a=1; qxlog_session=HEX; b=2"
  const std::string name = std::string(kSessionCookie) + "=";
  for (std::size_t start = 0; start < cookies.size();) {
    std::size_t end = cookies.find(';', start);
    if (end == std::string::npos) end = cookies.size();
    std::string_view cookie = std::string_view(cookies).substr(start, end - start);
    while (!cookie.empty() && cookie.front() == ' ') cookie.remove_prefix(1);
    if (cookie.starts_with(name) && sameSecret(cookie.substr(name.size()), session_)) return true;
    start = end + 1;
  }
  return false;
}

std::optional<std::string> AccessControl::sessionCookie(const HttpServerRequest& request) const {
  if (apiToken_.empty() || request.path != "/" || !authorized(request.header("authorization"))) {
    return std::nullopt;
  }
  return std::string(kSessionCookie) + "=" + session_ + "; Path=/; HttpOnly; SameSite=Strict";
}

bool AccessControl::isDevicePath(const std::string& path) {
  return path == "/settings" || path == "/log" || path == "/diagnosis";
}

bool AccessControl::hostAllowed(std::string_view host) const {
  const std::string port = ":" + std::to_string(port_.load());
  const std::string lower = lowerCase(host);
  for (const std::string& name :
       {listenHost_, std::string("localhost"), std::string("127.0.0.1"), std::string("[::1]")}) {
    if (lower == name + port) return true;
    // Browsers leave out the scheme's default port.
    if ((port_.load() == 80 || port_.load() == 443) && lower == name) return true;
  }
  return false;
}

bool AccessControl::authorized(const std::string& authorization) const {
  std::string credential;
  if (startsWithScheme(authorization, "bearer", credential)) {
    return sameSecret(credential, apiToken_);
  }
  if (startsWithScheme(authorization, "basic", credential)) {
    Decoded<std::string> pair = base64Decode(credential);
    if (!pair) return false;
    const std::size_t colon = pair.value->find(':');
    return colon != std::string::npos &&
           sameSecret(std::string_view(*pair.value).substr(colon + 1), apiToken_);
  }
  return false;
}

std::optional<HttpServerAnswer> AccessControl::check(const HttpServerRequest& request) const {
  if (apiToken_.empty()) {
    // Devices prove themselves by key and token, and reach the collector
    // through proxies under other names; the Host check guards what a
    // rebound page could read.
    if (isDevicePath(request.path)) return std::nullopt;
    const auto host = request.headers.find("host");
    if (host == request.headers.end() || hostAllowed(host->second)) return std::nullopt;
    return HttpServerAnswer{403, "text/plain",
                            "host not allowed: without an API token the collector answers only "
                            "requests to its own loopback address\n"};
  }
  if (isDevicePath(request.path) || authorized(request.header("authorization")) ||
      hasSession(request.header("cookie"))) {
    return std::nullopt;
  }
  HttpServerAnswer challenge{401, "text/plain", "API token required\n"};
  challenge.headers.emplace_back("WWW-Authenticate",
                                 "Basic realm=\"qxlog-collector\", charset=\"UTF-8\"");
  return challenge;
}

}  // namespace qxlog::collector
