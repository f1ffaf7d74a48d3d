// The system's device facts: statvfs, getifaddrs and getaddrinfo.
#ifndef QXLOG_PLATFORM_POSIXDEVICEFACTS_H_
#define QXLOG_PLATFORM_POSIXDEVICEFACTS_H_

#include "QXLog/platform/DeviceFacts.h"

namespace qxlog::platform {

class PosixDeviceFacts final : public DeviceFacts {
 public:
  Space fileSystemSpace(const std::string& path) const override;
  std::vector<InterfaceAddress> interfaceAddresses() const override;
  std::string resolveIPv4(const std::string& host) const override;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_POSIXDEVICEFACTS_H_
