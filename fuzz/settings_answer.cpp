// Any bytes as the settings endpoint's answer, through the library's own
// request and answer handling, with the network replaced by the input.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/platform/Env.h"
#include "fuzz/FuzzDirectory.h"

namespace platform = qxlog::platform;

namespace {

// Keeps posted tasks for the harness to run or drop.
class HeldTasks final : public platform::Executor {
 public:
  void post(platform::Task task, std::chrono::nanoseconds) override {
    tasks.push_back(std::move(task));
  }
  std::vector<platform::Task> tasks;
};

std::shared_ptr<HeldTasks> g_tasks;
std::string g_answer;
bool g_completed = true;

// Answers every request with the input instead of the network.
class InputTransport final : public platform::HttpTransport {
 public:
  platform::HttpResponse perform(const platform::HttpRequest&) override {
    platform::HttpResponse response;
    response.completed = g_completed;
    response.status = 200;
    response.contentType = "application/json";
    response.body = g_answer;
    return response;
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_tasks = std::make_shared<HeldTasks>();
  qxlog::center::CenterRegistry::createWithEnv(std::make_shared<platform::Env>(
      platform::Env::Parts{.mainQueue = g_tasks,
                           .globalQueue = g_tasks,
                           .http = std::make_shared<InputTransport>(),
                           .console = [](const std::string&) {},
                           .documents = makeFuzzDirectory()}));
  QXLogCenter::center().format().setPushUrl("http://127.0.0.1/settings");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The first byte's low bit: whether the exchange completed at all.
  g_completed = size == 0 || (data[0] & 1) == 0;
  g_answer.assign(reinterpret_cast<const char*>(data), size);
  QXLogCenter& center = QXLogCenter::center();
  center.getLogServerInfo();
  // The request and its answer run; a repeat or a timer it starts is dropped.
  std::vector<platform::Task> request = std::move(g_tasks->tasks);
  g_tasks->tasks.clear();
  for (platform::Task& task : request) task();
  g_tasks->tasks.clear();
  // What the answer set is usable.
  QXLogMessageFormat& format = center.format();
  (void)format.limitLogCount();
  for (double local : {1700000000000.0, 0.0, -1e300, 1e300}) (void)format.returnsSendTime(local);
  return 0;
}
