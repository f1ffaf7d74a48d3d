#include "tests/integrations/gstreamer/StallingServer.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace qxlog::testing {
namespace {

void sendAll(int connection, const char* data, std::size_t size) {
  for (ssize_t sent = 0; size > 0; data += sent, size -= static_cast<std::size_t>(sent)) {
    if ((sent = ::send(connection, data, size, MSG_NOSIGNAL)) <= 0) return;
  }
}

}  // namespace

StallingServer::StallingServer(std::string body, std::size_t stallAt)
    : body_(std::move(body)),
      stallAt_(std::min(stallAt, body_.size())),
      listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::listen(listener_, 4);
  // Until shut down, each connection in turn; the request itself is not read
  // beyond its first bytes.
  thread_ = std::thread([this] {
    for (int connection; (connection = ::accept(listener_, nullptr, nullptr)) >= 0;) {
      answer(connection);
      ::close(connection);
    }
  });
}

StallingServer::~StallingServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  ::shutdown(listener_, SHUT_RDWR);  // ends the accept
  thread_.join();
  ::close(listener_);
}

std::string StallingServer::url(const std::string& path) const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
  return "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + path;
}

bool StallingServer::stalled() const {
  std::lock_guard lock(mutex_);
  return stalled_;
}

void StallingServer::release() {
  {
    std::lock_guard lock(mutex_);
    released_ = true;
  }
  changed_.notify_all();
}

void StallingServer::answer(int connection) {
  char request[4096];
  if (::recv(connection, request, sizeof request, 0) <= 0) return;
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: video/ogg\r\nContent-Length: " +
                           std::to_string(body_.size()) +
                           "\r\nAccept-Ranges: none\r\nConnection: close\r\n\r\n";
  sendAll(connection, head.data(), head.size());
  sendAll(connection, body_.data(), stallAt_);
  {
    std::unique_lock lock(mutex_);
    stalled_ = true;
    changed_.wait(lock, [this] { return released_ || stopping_; });
    if (stopping_) return;
  }
  sendAll(connection, body_.data() + stallAt_, body_.size() - stallAt_);
}

}  // namespace qxlog::testing
