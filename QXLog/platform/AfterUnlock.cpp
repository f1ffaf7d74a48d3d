#include "QXLog/platform/AfterUnlock.h"

#include <utility>
#include <vector>

namespace qxlog::platform {
namespace {

thread_local int t_depth = 0;
thread_local std::vector<std::function<void()>> t_heldBack;

}  // namespace

AfterUnlock::AfterUnlock() {
  ++t_depth;
}

AfterUnlock::~AfterUnlock() {
  if (--t_depth != 0) return;
  // Calls run with no scope open, so anything they start runs at once.
  while (!t_heldBack.empty()) {
    std::vector<std::function<void()>> calls = std::exchange(t_heldBack, {});
    for (std::function<void()>& call : calls) call();
  }
}

void AfterUnlock::runOrDefer(std::function<void()> call) {
  if (t_depth == 0) {
    call();
  } else {
    t_heldBack.push_back(std::move(call));
  }
}

}  // namespace qxlog::platform
