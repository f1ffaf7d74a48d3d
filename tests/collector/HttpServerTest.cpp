// The HTTP front against clients that hold connections: the limits per
// client address and in all, and the deadline of a whole request, with small
// limits so that the attacks are quick. Other clients are served throughout.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "collector/http/HttpServer.h"
#include "tests/support/HttpClient.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

using namespace std::chrono_literals;
using collector::HttpServer;

// The status of the answer to a whole GET sent from `from`, 0 for none.
int statusOf(const char* from, int port) {
  return roundTrip(port, "GET /ping HTTP/1.1\r\nHost: x\r\n\r\n", from).status;
}

class HttpServerTest : public ::testing::Test {
 protected:
  void start(HttpServer::Options options) {
    options.refused = [this](const collector::HttpServerRequest&, int status, const std::string&) {
      std::lock_guard lock(mutex_);
      refusals_.push_back(status);
    };
    server_ = std::make_unique<HttpServer>(options, [](const collector::HttpServerRequest&) {
      return collector::HttpServerAnswer{200, "text/plain", "pong\n"};
    });
    ASSERT_TRUE(server_->start()) << server_->error();
  }
  std::vector<int> refusals() {
    std::lock_guard lock(mutex_);
    return refusals_;
  }
  std::unique_ptr<HttpServer> server_;
  std::mutex mutex_;
  std::vector<int> refusals_;
};

TEST_F(HttpServerTest, ConnectionsOverALimitAreAnswered503WhileOthersAreServed) {
  HttpServer::Options options;
  options.maxConnectionsPerClient = 2;
  options.maxConnections = 4;
  start(options);
  int port = server_->port();
  std::vector<int> held = {connectFrom("127.0.0.1", port), connectFrom("127.0.0.1", port)};
  std::this_thread::sleep_for(50ms);            // the server has counted them
  EXPECT_EQ(statusOf("127.0.0.1", port), 503);  // a third from the same address
  EXPECT_EQ(statusOf("127.0.0.2", port), 200);  // another address is served
  held.push_back(connectFrom("127.0.0.3", port));
  held.push_back(connectFrom("127.0.0.4", port));
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(statusOf("127.0.0.5", port), 503);  // four open in all
  // A connection over the limit that sends nothing is closed after its grace,
  // so that it holds no place.
  int idle = connectFrom("127.0.0.1", port);
  std::string closed = readToEnd(idle);
  ::close(idle);
  EXPECT_EQ(closed, "");
  for (int fd : held) ::close(fd);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(statusOf("127.0.0.1", port), 200);  // served again once they are gone
  EXPECT_EQ(refusals(), (std::vector<int>{503, 503, 503}));
}

TEST_F(HttpServerTest, ARequestThatTricklesPastTheDeadlineIsCutOff) {
  HttpServer::Options options;
  options.requestDeadline = 300ms;
  start(options);
  int fd = connectFrom("127.0.0.1", server_->port());
  ASSERT_GE(fd, 0);
  // One byte of headers every 50 ms keeps a per-read timeout from ever firing.
  const auto started = std::chrono::steady_clock::now();
  bool cut = false;
  while (!cut && std::chrono::steady_clock::now() - started < 3s) {
    cut = ::send(fd, "X", 1, MSG_NOSIGNAL) != 1;
    char byte;
    cut = cut || ::recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
    std::this_thread::sleep_for(50ms);
  }
  ::close(fd);
  EXPECT_TRUE(cut);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 1500ms);
  EXPECT_EQ(refusals(), std::vector<int>{408});
  EXPECT_EQ(statusOf("127.0.0.1", server_->port()), 200);
}

}  // namespace
}  // namespace qxlog::testing
