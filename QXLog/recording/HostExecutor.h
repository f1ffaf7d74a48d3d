// The host's own scheduler as the main queue: each task goes to the host's C
// callback, which runs it on the host's main thread when it is due.
#ifndef QXLOG_RECORDING_HOSTEXECUTOR_H_
#define QXLOG_RECORDING_HOSTEXECUTOR_H_

#include <cstdint>

#include "QXLog/QXLogExecutor.h"

namespace qxlog::recording {

class HostExecutor final : public platform::Executor {
 public:
  using Post = void (*)(void (*task)(void*), void* taskContext, uint64_t delayNanos, void* context);
  HostExecutor(Post hostPost, void* context) : post_(hostPost), context_(context) {}
  void post(platform::Task task, std::chrono::nanoseconds delay) override;

 private:
  Post post_;
  void* context_;
};

}  // namespace qxlog::recording

#endif  // QXLOG_RECORDING_HOSTEXECUTOR_H_
