// The client behind a request when the collector stands behind a reverse
// proxy or load balancer.
#ifndef QXLOG_COLLECTOR_SERVER_CLIENTADDRESS_H_
#define QXLOG_COLLECTOR_SERVER_CLIENTADDRESS_H_

#include <string>
#include <vector>

#include "collector/http/HttpServer.h"

namespace qxlog::collector {

// The IP address of a peer text: "a.b.c.d:port" -> "a.b.c.d",
// "[::1]:port" -> "::1"; anything else unchanged.
std::string peerAddress(const std::string& peer);

// The client's address for the peer column, the logs and per-client limits.
// When the connection comes from one of `trustedProxies` (IP addresses), the
// address the proxies forwarded: the rightmost entry of "Forwarded" (its
// "for=" parameters) or, without that header, of "X-Forwarded-For" that is
// not itself a trusted proxy. Otherwise, and when what was forwarded is not
// an IP address, the connection's peer unchanged.
std::string resolveClientAddress(const HttpServerRequest& request,
                                 const std::vector<std::string>& trustedProxies);

}  // namespace qxlog::collector

#endif  // QXLOG_COLLECTOR_SERVER_CLIENTADDRESS_H_
