// The library against servers that misbehave, over real loopback connections:
// every exchange must end, within the time limit, in the failure path or the
// nil values that a broken answer gives, without reading more than the bound.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>

#include "tests/support/HostileServer.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using std::chrono::milliseconds;
using Behaviour = HostileServer::Behaviour;

// Loopback socket buffers hold a few megabytes beyond what the client read.
constexpr uint64_t kMostBytesTaken = 24ull << 20;

long peakResidentKilobytes() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

class HostileServerTest : public UploadTest {
 protected:
  // Real limits are a minute; a stalled exchange here gives up much sooner.
  HostileServerTest() { httpTimeLimit_ = milliseconds(3000); }
  // The failure path: tried, repeated once, and then the batch is gone.
  void expectBatchLostAfterOneRepeat() {
    EXPECT_EQ(console_->countStartingWith("Ostra->LogContent:"), 2u);
    EXPECT_TRUE(center().actionLog().empty());
    EXPECT_FALSE(std::filesystem::exists(documentsPath("UserStatisticalLog.plist")));
    EXPECT_EQ(dispatcher_->pending(), 0u);  // no timer restarted, nothing left to run
  }
};

TEST_F(HostileServerTest, EveryBrokenExchangeEndsInTheFailurePathWithinTheBound) {
  const long before = peakResidentKilobytes();
  const struct {
    std::optional<Behaviour> behaviour;  // none: the connection is refused
    std::size_t requests;
  } cases[] = {
      {Behaviour::kEndlessBody, 2},     {Behaviour::kHugeAnnounced, 2},
      {Behaviour::kHugeUnannounced, 2}, {Behaviour::kEndlessHeaders, 2},
      {Behaviour::kStall, 2},           {Behaviour::kRedirectLoop, 2 * 17},  // 16 redirects each
      {Behaviour::kClose, 2},           {std::nullopt, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.behaviour ? static_cast<int>(*c.behaviour) : -1);
    const bool stall = c.behaviour == Behaviour::kStall;
    httpTimeLimit_ = milliseconds(stall ? 300 : 3000);
    TearDown();
    SetUp();
    std::optional<HostileServer> server;
    if (c.behaviour) server.emplace(*c.behaviour);
    format().setPushLogUrl(server ? server->url("/log") : refusedUrl("/log"));
    center().storeActionLog(strings({{"a_t", "2"}, {"a_1", "item"}}));
    // The request waits on the global queue; the reporting thread is free.
    EXPECT_GT(dispatcher_->pending(), 0u);
    const auto started = std::chrono::steady_clock::now();
    settle();
    if (stall) {
      EXPECT_GE(std::chrono::steady_clock::now() - started, milliseconds(2 * 300));
    }
    if (server) {
      EXPECT_EQ(server->requests(), c.requests);
      EXPECT_LT(server->bytesSent(), kMostBytesTaken);
    }
    expectBatchLostAfterOneRepeat();
  }
  // No answer was held in memory.
  EXPECT_LT(peakResidentKilobytes() - before, 48L * 1024);
}

TEST_F(HostileServerTest, DeeplyNestedJsonIsNoAnswer) {
  const std::string nested = std::string(10000, '[') + std::string(10000, ']');
  server_->script(ScriptedAnswer::json(nested));
  server_->script(ScriptedAnswer::json(nested));
  center().storeActionLog(strings({{"a_1", "item"}}));
  settle();
  EXPECT_EQ(server_->requestCount(), 2u);
  expectBatchLostAfterOneRepeat();

  // As a settings answer: every setting becomes nil.
  server_->script(ScriptedAnswer::json(R"({"result":)" + nested + "}"));
  center().getLogServerInfo();
  settle();
  EXPECT_TRUE(format().push_interval_time().isNull());
  EXPECT_TRUE(format().current_time().isNull());
  EXPECT_EQ(format().limitLogCount(), 0);
}

}  // namespace
}  // namespace qxlog::testing
