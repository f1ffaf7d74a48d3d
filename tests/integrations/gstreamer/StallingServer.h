// An HTTP server on 127.0.0.1 that serves one body and holds it back after
// its first bytes until the test releases it: a network stall mid-file.
#ifndef QXLOG_TESTS_INTEGRATIONS_GSTREAMER_STALLINGSERVER_H_
#define QXLOG_TESTS_INTEGRATIONS_GSTREAMER_STALLINGSERVER_H_

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace qxlog::testing {

class StallingServer {
 public:
  // Sends `stallAt` bytes of `body` on each connection, then waits for release().
  StallingServer(std::string body, std::size_t stallAt);
  ~StallingServer();

  std::string url(const std::string& path) const;
  bool connected() const;  // an answer has begun and stalls
  void release();

 private:
  void serve();
  void answer(int connection);

  std::string body_;
  std::size_t stallAt_;
  int listener_ = -1;
  int port_ = 0;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool connected_ = false;
  bool released_ = false;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_INTEGRATIONS_GSTREAMER_STALLINGSERVER_H_
