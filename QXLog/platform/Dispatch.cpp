#include "QXLog/platform/Dispatch.h"

#include <mutex>

#include "QXLog/platform/GlobalQueue.h"

namespace qxlog::platform {
namespace {

std::mutex g_mutex;

// Both built-in queues live for the whole process: tasks still pending at
// exit are simply never run, and no worker is joined during static teardown.
std::shared_ptr<MainQueue> builtInMain() {
  static auto* queue = new std::shared_ptr<MainQueue>(std::make_shared<MainQueue>());
  return *queue;
}
std::shared_ptr<Executor> builtInGlobal() {
  static auto* queue = new std::shared_ptr<Executor>(std::make_shared<GlobalQueue>());
  return *queue;
}

std::shared_ptr<Executor>& installedMain() {
  static auto* executor = new std::shared_ptr<Executor>();
  return *executor;
}
std::shared_ptr<Executor>& installedGlobal() {
  static auto* executor = new std::shared_ptr<Executor>();
  return *executor;
}

}  // namespace

std::shared_ptr<Executor> mainQueue() {
  std::lock_guard lock(g_mutex);
  if (installedMain()) return installedMain();
  return builtInMain();
}

std::shared_ptr<Executor> globalQueue() {
  std::lock_guard lock(g_mutex);
  if (installedGlobal()) return installedGlobal();
  return builtInGlobal();
}

MainQueue& defaultMainQueue() {
  return *builtInMain();
}

void setMainQueue(std::shared_ptr<Executor> executor) {
  std::lock_guard lock(g_mutex);
  installedMain() = std::move(executor);
}

void setGlobalQueue(std::shared_ptr<Executor> executor) {
  std::lock_guard lock(g_mutex);
  installedGlobal() = std::move(executor);
}

}  // namespace qxlog::platform
