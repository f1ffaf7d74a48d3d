#include "QXLog/support/HelperSource.h"

#include <atomic>

#include "QXLog/platform/Env.h"

namespace qxlog::support {
namespace {

std::atomic<const HelperSource*> g_source{nullptr};

}  // namespace

void installHelperSource(const HelperSource* source) {
  g_source.store(source, std::memory_order_release);
}

platform::Env& helperEnv() {
  if (const HelperSource* source = g_source.load(std::memory_order_acquire)) return source->env();
  static const std::shared_ptr<platform::Env> system = platform::Env::Default();
  return *system;
}

NullableString helperUploadKey() {
  if (const HelperSource* source = g_source.load(std::memory_order_acquire))
    return source->uploadKey();
  return std::nullopt;
}

}  // namespace qxlog::support
