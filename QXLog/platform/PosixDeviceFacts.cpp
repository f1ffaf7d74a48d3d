#include "QXLog/platform/PosixDeviceFacts.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>

namespace qxlog::platform {
namespace {

std::string dotted(const sockaddr* address) {
  sockaddr_in ipv4{};
  std::memcpy(&ipv4, address, sizeof ipv4);
  char text[INET_ADDRSTRLEN] = {};
  if (inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text) == nullptr) return std::string();
  return text;
}

}  // namespace

DeviceFacts::Space PosixDeviceFacts::fileSystemSpace(const std::string& path) const {
  Space space;
  struct statvfs info {};
  if (statvfs(path.c_str(), &info) != 0) {
    space.error = errno;
    return space;
  }
  space.blocks = info.f_blocks;
  space.available = info.f_bavail;
  space.fragmentSize = info.f_frsize;
  return space;
}

std::vector<DeviceFacts::InterfaceAddress> PosixDeviceFacts::interfaceAddresses() const {
  std::vector<InterfaceAddress> addresses;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return addresses;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_name == nullptr) continue;
    if (entry->ifa_addr->sa_family != AF_INET) continue;
    addresses.push_back({entry->ifa_name, dotted(entry->ifa_addr)});
  }
  freeifaddrs(list);
  return addresses;
}

std::string PosixDeviceFacts::resolveIPv4(const std::string& host) const {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* answer = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &answer) != 0 || answer == nullptr) {
    return std::string();
  }
  std::string result;
  if (answer->ai_addr != nullptr && answer->ai_addrlen >= sizeof(sockaddr_in)) {
    result = dotted(answer->ai_addr);
  }
  freeaddrinfo(answer);
  return result;
}

}  // namespace qxlog::platform
