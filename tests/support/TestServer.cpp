#include "tests/support/TestServer.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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

std::string ReceivedRequest::header(const std::string& name) const {
  auto it = headers.find(name);
  return it != headers.end() ? it->second : "<missing>";
}

TestServer::TestServer() : server_(std::make_unique<httplib::Server>()) {
  auto handle = [this](const httplib::Request& request, httplib::Response& response) {
    ReceivedRequest received{request.method, request.path, "", {}, request.body, {}};
    for (const auto& [name, value] : request.headers) received.headers.emplace(name, value);
    for (const auto& [name, value] : request.params) received.params.emplace(name, value);
    auto target = request.target.find('?');
    if (target != std::string::npos) received.query = request.target.substr(target + 1);
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
    response.status = answer.status;
    response.set_content(answer.body, answer.contentType.c_str());
  };
  server_->Get(".*", handle);
  server_->Post(".*", handle);
  port_ = server_->bind_to_any_port("127.0.0.1");
  // The socket is bound and listening already: connections made before the
  // thread starts serving wait in the backlog.
  thread_ = std::thread([this] { server_->listen_after_bind(); });
}

TestServer::~TestServer() {
  server_->stop();
  thread_.join();
}

std::string TestServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
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
