#include "tests/support/TestServer.h"

#include <gtest/gtest.h>

#include "collector/http/HttpServer.h"
#include "tests/support/HostileServer.h"

namespace qxlog::testing {

std::string ReceivedRequest::param(const std::string& name) const {
  auto it = params.find(name);
  return it != params.end() ? it->second : "<missing>";
}

std::string ReceivedRequest::header(const std::string& name) const {
  auto it = headers.find(name);
  return it != headers.end() ? it->second : "<missing>";
}

TestServer::TestServer() {
  auto handle = [this](const collector::HttpServerRequest& request) {
    std::lock_guard lock(mutex_);
    requests_.push_back(
        {request.method, request.path, request.query, request.headers, request.params});
    std::optional<ScriptedAnswer> answer;
    if (responder_) answer = responder_(requests_.back());
    if (!answer) {
      answer = script_.empty() ? fallback_ : script_.front();
      if (!script_.empty()) script_.pop_front();
    }
    collector::HttpServerAnswer reply{answer->status, answer->contentType, answer->body};
    reply.headers = answer->headers;
    return reply;
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

void TestServer::setResponder(
    std::function<std::optional<ScriptedAnswer>(const ReceivedRequest&)> responder) {
  std::lock_guard lock(mutex_);
  responder_ = std::move(responder);
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

std::string refusedUrl(const std::string& path) {
  // The port of a server that has stopped: nothing listens there any more.
  return HostileServer(HostileServer::Behaviour::kClose).url(path);
}

}  // namespace qxlog::testing
