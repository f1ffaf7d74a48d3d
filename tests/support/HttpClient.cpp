#include "tests/support/HttpClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "tests/support/TestPlatform.h"

namespace qxlog::testing {

int connectFrom(const char* from, int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  ::inet_pton(AF_INET, from, &local.sin_addr);
  ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(static_cast<uint16_t>(port));
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

HttpReply roundTrip(int port, const std::string& request, const char* from) {
  int fd = connectFrom(from, port);
  if (fd < 0) return {};
  ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  const std::string raw = readToEnd(fd);
  ::close(fd);
  const std::size_t head = raw.find("\r\n\r\n");
  if (raw.rfind("HTTP/1.1 ", 0) != 0 || head == std::string::npos) return {};
  return {std::atoi(raw.c_str() + 9), raw.substr(0, head), raw.substr(head + 4)};
}

HttpReply postForm(int port, const std::string& path, const std::string& form) {
  return roundTrip(port, "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                             "\r\nContent-Type: "
                             "application/x-www-form-urlencoded\r\nContent-Length: " +
                             std::to_string(form.size()) + "\r\n\r\n" + form);
}

HttpReply get(int port, const std::string& target) {
  return roundTrip(
      port, "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n");
}

std::string formEncode(const std::string& text) {
  std::string out;
  char escaped[4];
  for (unsigned char c : text) {
    std::snprintf(escaped, sizeof escaped, "%%%02X", c);
    out += std::isalnum(c) ? std::string(1, static_cast<char>(c)) : std::string(escaped);
  }
  return out;
}

}  // namespace qxlog::testing
