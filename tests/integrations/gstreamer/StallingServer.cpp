#include "tests/integrations/gstreamer/StallingServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qxlog::testing {
namespace {

bool sendAll(int connection, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t sent = ::send(connection, data, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

// Reads the request up to its blank line; its contents do not matter.
void readRequest(int connection) {
  std::string request;
  char chunk[1024];
  while (request.find("\r\n\r\n") == std::string::npos) {
    const ssize_t got = ::recv(connection, chunk, sizeof chunk, 0);
    if (got <= 0) return;
    request.append(chunk, static_cast<std::size_t>(got));
  }
}

}  // namespace

StallingServer::StallingServer(std::string body, std::size_t stallAt)
    : body_(std::move(body)), stallAt_(std::min(stallAt, body_.size())) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::listen(listener_, 4);
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

StallingServer::~StallingServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
  ::close(listener_);
}

std::string StallingServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

bool StallingServer::connected() const {
  std::lock_guard lock(mutex_);
  return connected_;
}

void StallingServer::release() {
  {
    std::lock_guard lock(mutex_);
    released_ = true;
  }
  changed_.notify_all();
}

void StallingServer::serve() {
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
    }
    pollfd ready{listener_, POLLIN, 0};
    if (::poll(&ready, 1, 50) != 1) continue;
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    answer(connection);
    ::close(connection);
  }
}

void StallingServer::answer(int connection) {
  readRequest(connection);
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: video/ogg\r\nContent-Length: " +
                           std::to_string(body_.size()) +
                           "\r\nAccept-Ranges: none\r\nConnection: close\r\n\r\n";
  if (!sendAll(connection, head.data(), head.size())) return;
  if (!sendAll(connection, body_.data(), stallAt_)) return;
  {
    std::unique_lock lock(mutex_);
    connected_ = true;
    changed_.wait(lock, [this] { return released_ || stopping_; });
    if (stopping_) return;
  }
  sendAll(connection, body_.data() + stallAt_, body_.size() - stallAt_);
}

}  // namespace qxlog::testing
