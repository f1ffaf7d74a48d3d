#include "tests/support/HostileServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace qxlog::testing {
namespace {

constexpr int kPollStepMs = 20;
constexpr uint64_t kHugeBytes = 100ull << 20;

// Waits for `events` on `fd` in short steps; false once `stopping` is set or
// the descriptor fails.
bool waitFor(int fd, short events, const std::atomic<bool>& stopping) {
  while (!stopping.load()) {
    pollfd entry{fd, events, 0};
    int ready = ::poll(&entry, 1, kPollStepMs);
    if (ready < 0 && errno != EINTR) return false;
    if (ready > 0) return (entry.revents & (POLLERR | POLLNVAL)) == 0 || (entry.revents & events);
  }
  return false;
}

}  // namespace

HostileServer::HostileServer(std::string body, std::size_t stallAt)
    : behaviour_(Behaviour::kStallMidBody),
      body_(std::move(body)),
      stallAt_(std::min(stallAt, body_.size())) {
  listen();
}

void HostileServer::listen() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 16) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("hostile server: cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

HostileServer::~HostileServer() {
  stopping_.store(true);
  thread_.join();
  ::close(listener_);
}

void HostileServer::serve() {
  while (waitFor(listener_, POLLIN, stopping_)) {
    int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    if (readRequest(connection)) {
      requests_.fetch_add(1);
      answer(connection);
    }
    ::close(connection);
  }
}

bool HostileServer::readRequest(int connection) {
  std::string received;
  char buffer[4096];
  for (;;) {
    std::string head = received.substr(0, received.find("\r\n\r\n"));
    if (head.size() < received.size()) {  // the head is whole: then the body's length
      for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      const std::size_t at = head.find("content-length:");
      const std::size_t body =
          at == std::string::npos ? 0 : std::strtoull(&head[at + 15], nullptr, 10);
      if (received.size() >= head.size() + 4 + body) return true;
      if (behaviour_ == Behaviour::kEarlyRefusal) return true;
    }
    if (!waitFor(connection, POLLIN, stopping_)) return false;
    ssize_t got = ::recv(connection, buffer, sizeof buffer, 0);
    if (got <= 0) return false;
    received.append(buffer, static_cast<std::size_t>(got));
  }
}

bool HostileServer::sendAll(int connection, const char* bytes, std::size_t size) {
  while (size > 0) {
    if (!waitFor(connection, POLLOUT, stopping_)) return false;
    ssize_t sent = ::send(connection, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
      return false;
    }
    bytesSent_.fetch_add(static_cast<uint64_t>(sent));
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

void HostileServer::answer(int connection) {
  const std::vector<char> filler(64 * 1024, ' ');
  auto sendText = [&](const std::string& text) {
    return sendAll(connection, text.data(), text.size());
  };
  // Sends `total` bytes of filler (forever when total is 0).
  auto sendFiller = [&](uint64_t total) {
    for (uint64_t sent = 0; total == 0 || sent < total; sent += filler.size()) {
      if (!sendAll(connection, filler.data(), filler.size())) return;
    }
  };
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
  const std::string closing = "Connection: close\r\n\r\n";
  switch (behaviour_) {
    case Behaviour::kEndlessBody:
      if (sendText(ok + closing + "{\"operate_code\":\"200\",\"x\":\"")) sendFiller(0);
      break;
    case Behaviour::kHugeAnnounced:
      if (sendText(ok + "Content-Length: " + std::to_string(kHugeBytes) + "\r\n" + closing)) {
        sendFiller(kHugeBytes);
      }
      break;
    case Behaviour::kHugeUnannounced:
      if (sendText(ok + closing)) sendFiller(kHugeBytes);
      break;
    case Behaviour::kEndlessHeaders:
      for (bool open = sendText(ok); open;)
        open = sendText("X-Filler: " + std::string(1000, 'h') + "\r\n");
      break;
    case Behaviour::kStall:
      // Holds the connection open until the client gives up or the server stops.
      for (char byte;
           waitFor(connection, POLLIN, stopping_) && ::recv(connection, &byte, 1, 0) > 0;) {
      }
      break;
    case Behaviour::kRedirectLoop:
      sendText("HTTP/1.1 302 Found\r\nLocation: /loop\r\nContent-Length: 0\r\n" + closing);
      break;
    case Behaviour::kClose:
      break;
    case Behaviour::kStallMidBody:
      if (sendText("HTTP/1.1 200 OK\r\nContent-Type: video/ogg\r\nContent-Length: " +
                   std::to_string(body_.size()) + "\r\nAccept-Ranges: none\r\n" + closing) &&
          sendAll(connection, body_.data(), stallAt_)) {
        stalled_.store(true);
        while (!released_.load() && !stopping_.load()) ::poll(nullptr, 0, kPollStepMs);
        sendAll(connection, body_.data() + stallAt_, body_.size() - stallAt_);
      }
      break;
    case Behaviour::kEarlyRefusal:
      // As a proxy over its body limit: the close resets what is unread.
      sendText(
          "HTTP/1.1 413 Payload Too Large\r\nContent-Type: text/plain\r\n"
          "Content-Length: 15\r\n" +
          closing + "body too large\n");
      break;
  }
}

}  // namespace qxlog::testing
