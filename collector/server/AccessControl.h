// Who may read what the collector stored. Devices reach /settings, /log and
// /diagnosis and prove themselves by key and day token; everything else (the
// dashboard, /api/*, /received) shows user ids, phone numbers and device ids.
//
// With an API token, those paths require it, as "Authorization: Bearer
// TOKEN" or as the password of HTTP Basic (any user name), so that a browser
// can log in; without it they are answered 401 with a Basic challenge. The
// page answered to a login sets a session cookie (a digest of the token,
// HttpOnly, SameSite=Strict) that the page's own requests carry: browsers do
// not send the credentials of a login to the page's scripts and fetches.
//
// Without a token the collector must listen on a loopback address, and
// answers only requests whose Host is that address, localhost, 127.0.0.1 or
// [::1] with the collector's port: a page elsewhere that points its own host
// name at 127.0.0.1 (DNS rebinding) sends its own name and is refused. A
// request without a Host header cannot come from a browser and is answered.
#ifndef QXLOG_COLLECTOR_SERVER_ACCESSCONTROL_H_
#define QXLOG_COLLECTOR_SERVER_ACCESSCONTROL_H_

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

#include "collector/http/HttpServer.h"

namespace qxlog::collector {

class AccessControl {
 public:
  // `port` may be set later, once the server knows it.
  AccessControl(std::string apiToken, std::string listenHost, int port);

  void setPort(int port) { port_.store(port); }
  // Nothing when the request may be handled; otherwise the answer.
  std::optional<HttpServerAnswer> check(const HttpServerRequest& request) const;

  // The Set-Cookie value for the answer to `request` when it is a login to
  // the page; nothing otherwise.
  std::optional<std::string> sessionCookie(const HttpServerRequest& request) const;

  // The paths that devices use, open to anyone.
  static bool isDevicePath(const std::string& path);

 private:
  bool hostAllowed(std::string_view host) const;
  bool authorized(const std::string& authorization) const;

  bool hasSession(const std::string& cookies) const;

  std::string apiToken_;
  std::string session_;  // the cookie's value: a digest of the token
  std::string listenHost_;
  std::atomic<int> port_;
};

// Whether `host` (an IPv4 or IPv6 address or "localhost") is a loopback
// address.
bool isLoopbackHost(const std::string& host);
// Equality in a time that depends on the lengths alone, not on where the
// texts first differ.
bool sameSecret(std::string_view given, std::string_view expected);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_SERVER_ACCESSCONTROL_H_
