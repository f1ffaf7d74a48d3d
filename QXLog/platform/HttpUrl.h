// The shape of the URLs the library sends to.
#ifndef QXLOG_PLATFORM_HTTPURL_H_
#define QXLOG_PLATFORM_HTTPURL_H_

#include <string>

namespace qxlog::platform {

// Whether the text has the shape of an absolute http(s) URL with a host and
// no characters a URL cannot hold.
bool isValidHttpUrl(const std::string& url);

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_HTTPURL_H_
