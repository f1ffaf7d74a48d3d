#include "QXLog/center/CenterRegistry.h"

#include <atomic>
#include <mutex>
#include <vector>

#include "QXLog/support/HelperSource.h"

namespace qxlog::center {
namespace {

std::atomic<QXLogCenter*> g_center{nullptr};
std::once_flag g_once;
std::mutex g_envMutex;
std::shared_ptr<platform::Env> g_env;  // the current center's

// QXLogHelper's methods read the current center's environment and key.
const support::HelperSource g_helperSource{
    []() -> platform::Env& { return CenterRegistry::instance().env(); },
    [] { return CenterRegistry::instance().format().logEncryptionKey(); }};

}  // namespace

QXLogCenter* CenterRegistry::createdOn(std::shared_ptr<platform::Env> env) {
  std::lock_guard lock(g_envMutex);
  g_env = std::move(env);
  auto* center = new QXLogCenter(g_env);
  support::installHelperSource(&g_helperSource);
  return center;
}

bool CenterRegistry::createWithEnv(std::shared_ptr<platform::Env> env) {
  bool created = false;
  std::call_once(g_once, [&] {
    g_center.store(createdOn(std::move(env)), std::memory_order_release);
    created = true;
  });
  return created;
}

QXLogCenter& CenterRegistry::instance() {
  createWithEnv(platform::Env::Default());
  return *g_center.load(std::memory_order_acquire);
}

QXLogCenter* CenterRegistry::existing() {
  return g_center.load(std::memory_order_acquire);
}

QXLogCenter& CenterRegistry::replaceForTesting(std::shared_ptr<platform::Env> env) {
  instance();
  static std::mutex retiredMutex;
  static auto* retired = new std::vector<QXLogCenter*>();
  if (!env) {
    std::lock_guard lock(g_envMutex);
    env = g_env;
  }
  auto* fresh = createdOn(std::move(env));
  std::lock_guard lock(retiredMutex);
  retired->push_back(g_center.exchange(fresh, std::memory_order_acq_rel));
  return *fresh;
}

}  // namespace qxlog::center

QXLogCenter& QXLogCenter::center() {
  return qxlog::center::CenterRegistry::instance();
}
