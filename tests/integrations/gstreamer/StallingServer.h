// An HTTP server on 127.0.0.1 that serves one body, not seekable, and holds
// it back after its first bytes until the test releases it: a stall mid-file.
#ifndef QXLOG_TESTS_INTEGRATIONS_GSTREAMER_STALLINGSERVER_H_
#define QXLOG_TESTS_INTEGRATIONS_GSTREAMER_STALLINGSERVER_H_

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace qxlog::testing {

class StallingServer {
 public:
  StallingServer(std::string body, std::size_t stallAt);
  ~StallingServer();

  std::string url(const std::string& path) const;
  bool stalled() const;  // an answer has sent its first bytes and waits
  void release();

 private:
  void answer(int connection);

  std::string body_;
  std::size_t stallAt_;
  int listener_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool stalled_ = false, released_ = false, stopping_ = false;
  std::thread thread_;
};

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_INTEGRATIONS_GSTREAMER_STALLINGSERVER_H_
