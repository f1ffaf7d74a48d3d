#include "QXLog/center/CenterRegistry.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace qxlog {
namespace {

std::atomic<QXLogCenter*> g_center{nullptr};
std::once_flag g_once;

}  // namespace

QXLogCenter& CenterRegistry::instance() {
  std::call_once(g_once, [] { g_center.store(new QXLogCenter(), std::memory_order_release); });
  return *g_center.load(std::memory_order_acquire);
}

QXLogCenter& CenterRegistry::replaceForTesting() {
  instance();
  static std::mutex retiredMutex;
  static auto* retired = new std::vector<QXLogCenter*>();
  auto* fresh = new QXLogCenter();
  std::lock_guard lock(retiredMutex);
  retired->push_back(g_center.exchange(fresh, std::memory_order_acq_rel));
  return *fresh;
}

}  // namespace qxlog

QXLogCenter& QXLogCenter::center() {
  return qxlog::CenterRegistry::instance();
}
