// A server on 127.0.0.1 that misbehaves on purpose, one way per instance, for
// tests of how the library and the player adapter meet broken and hostile
// servers. Connections are served one at a time on the server's own thread;
// every wait polls in short steps so that the destructor returns promptly.
#ifndef QXLOG_TESTS_SUPPORT_HOSTILESERVER_H_
#define QXLOG_TESTS_SUPPORT_HOSTILESERVER_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace qxlog::testing {

class HostileServer {
 public:
  enum class Behaviour {
    kEndlessBody,      // a 200 JSON answer whose body never ends (no length)
    kHugeAnnounced,    // a 200 answer announcing and sending 100 MB
    kHugeUnannounced,  // 100 MB without a length, ended by closing
    kEndlessHeaders,   // header lines that never end
    kStall,            // reads the request and then says nothing
    kRedirectLoop,     // every request is sent back to itself with a 302
    kClose,            // reads the request and closes without a word
    kStallMidBody,     // serves a body, not seekable, held back after its first bytes
    kEarlyRefusal,     // answers 413 after the request's head and closes, body unread
  };

  explicit HostileServer(Behaviour behaviour) : behaviour_(behaviour) { listen(); }
  // kStallMidBody: `body`, held back after `stallAt` bytes until release().
  HostileServer(std::string body, std::size_t stallAt);
  ~HostileServer();
  HostileServer(const HostileServer&) = delete;
  HostileServer& operator=(const HostileServer&) = delete;

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  // Requests read in full (for a redirect loop, one per hop).
  std::size_t requests() const { return requests_.load(); }
  // Answer bytes the client took before it went away.
  uint64_t bytesSent() const { return bytesSent_.load(); }
  // kStallMidBody: whether an answer waits at the stall, and its release.
  bool stalled() const { return stalled_.load(); }
  void release() { released_.store(true); }

 private:
  void listen();
  void serve();
  void answer(int connection);
  bool readRequest(int connection);
  // Sends all of `bytes`; false once the client has gone or the server stops.
  bool sendAll(int connection, const char* bytes, std::size_t size);

  Behaviour behaviour_;
  std::string body_;
  std::size_t stallAt_ = 0;
  std::atomic<bool> stalled_{false}, released_{false};
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<std::size_t> requests_{0};
  std::atomic<uint64_t> bytesSent_{0};
  std::thread thread_;
};

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_SUPPORT_HOSTILESERVER_H_
