#include "tests/support/TestServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>

#include "collector/http/HttpServer.h"

namespace qxlog::testing {
namespace {

// A listening socket on 127.0.0.1 with a port chosen by the system.
int listenOnLoopback(int* port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 64) != 0) {
    ::close(fd);
    return -1;
  }
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  *port = ntohs(address.sin_port);
  return fd;
}

}  // namespace

std::string ReceivedRequest::param(const std::string& name) const {
  auto it = params.find(name);
  return it != params.end() ? it->second : "<missing>";
}

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string ReceivedRequest::header(const std::string& name) const {
  auto it = headers.find(lowerCase(name));
  return it != headers.end() ? it->second : "<missing>";
}

bool ReceivedRequest::hasHeader(const std::string& name) const {
  return headers.count(lowerCase(name)) != 0;
}

TestServer::TestServer() {
  auto handle = [this](const collector::HttpServerRequest& request) {
    ReceivedRequest received{request.method,  request.path, request.query,
                             request.headers, request.body, request.params};
    ScriptedAnswer answer;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(std::move(received));
      if (script_.empty()) {
        answer = fallback_;
      } else {
        answer = script_.front();
        script_.pop_front();
      }
    }
    arrived_.notify_all();
    if (answer.delay.count() > 0) std::this_thread::sleep_for(answer.delay);
    return collector::HttpServerAnswer{answer.status, answer.contentType, answer.body};
  };
  server_ = std::make_unique<collector::HttpServer>(collector::HttpServer::Options(), handle);
  if (!server_->start()) ADD_FAILURE() << "test server: " << server_->error();
}

TestServer::~TestServer() {
  server_->stop();
}

std::string TestServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(server_->port()) + path;
}

void TestServer::script(ScriptedAnswer answer) {
  std::lock_guard lock(mutex_);
  script_.push_back(std::move(answer));
}

void TestServer::setFallback(ScriptedAnswer answer) {
  std::lock_guard lock(mutex_);
  fallback_ = std::move(answer);
}

std::vector<ReceivedRequest> TestServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t TestServer::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

bool TestServer::waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, limit, [&] { return requests_.size() >= count; });
}

ClosingServer::ClosingServer() {
  listener_ = listenOnLoopback(&port_);
  thread_ = std::thread([this] {
    while (!stopping_.load()) {
      pollfd ready{listener_, POLLIN, 0};
      if (::poll(&ready, 1, 20) <= 0) continue;
      int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) continue;
      ++accepted_;
      ::close(connection);
    }
  });
}

ClosingServer::~ClosingServer() {
  stopping_ = true;
  thread_.join();
  ::close(listener_);
}

std::string ClosingServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::string refusedUrl(const std::string& path) {
  int port = 0;
  int fd = listenOnLoopback(&port);
  ::close(fd);  // nothing listens there any more
  return "http://127.0.0.1:" + std::to_string(port) + path;
}

}  // namespace qxlog::testing
