// The device facts that records carry, as one part of the library's
// environment (Env): the size of a file system, the interfaces' IPv4
// addresses and the resolver's answer for a host. PosixDeviceFacts asks the
// system; tests put in fixed ones.
#ifndef QXLOG_PLATFORM_DEVICEFACTS_H_
#define QXLOG_PLATFORM_DEVICEFACTS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace qxlog::platform {

class DeviceFacts {
 public:
  virtual ~DeviceFacts() = default;

  // The figures of the file system holding a path, as statvfs gives them.
  struct Space {
    int error = 0;              // the errno of a failure; the figures are then 0
    uint64_t blocks = 0;        // size, in fragments
    uint64_t available = 0;     // fragments free for unprivileged users
    uint64_t fragmentSize = 0;  // bytes
  };
  virtual Space fileSystemSpace(const std::string& path) const = 0;

  struct InterfaceAddress {
    std::string interface;
    std::string ipv4;  // dotted
  };
  // Every IPv4 address of every interface, in the system's order.
  virtual std::vector<InterfaceAddress> interfaceAddresses() const = 0;

  // The first IPv4 address the resolver gives for a host name, dotted, or "".
  // Blocks for as long as the resolver takes.
  virtual std::string resolveIPv4(const std::string& host) const = 0;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_DEVICEFACTS_H_
