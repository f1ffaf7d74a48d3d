// Device facts: emptiness of values, disk sizes and the carrier name.
#include "QXLog/support/Facts.h"

#include <cstdint>
#include <string>

#include "QXLog/QXLogHelper.h"
#include "QXLog/serial/Text.h"

namespace qxlog::support {

double totalDiskSpaceOf(const platform::Env& env, const std::string& path) {
  const platform::DeviceFacts::Space info = env.facts().fileSystemSpace(path);
  if (info.error != 0) {
    env.consoleWrite("Error Obtaining System Memory Info: Domain = NSPOSIXErrorDomain, Code = " +
                     serial::formatInteger(info.error));
    return 0.0;
  }
  // The size passes through a float on purpose: the figure keeps 24 bits.
  // The product wraps, never traps.
  const uint64_t bytes = info.blocks * info.fragmentSize;
  const double size = static_cast<double>(static_cast<float>(bytes));
  const double gigabytes = size * 0.0009765625 * 0.0009765625 * 0.0009765625;
  env.consoleWrite("Memory Capacity of " + serial::formatFixed(gigabytes, 6) + " GB .");
  return size;
}

double freeDiskSpaceOf(const platform::DeviceFacts& facts, const std::string& path) {
  const platform::DeviceFacts::Space info = facts.fileSystemSpace(path);
  if (info.error != 0) return kUnknownFreeSpace;
  // Available fragments of fragmentSize bytes; the product wraps, never traps.
  return static_cast<double>(info.fragmentSize * info.available);
}

}  // namespace qxlog::support

bool QXLogHelper::isEmptyOrNull(const Value& value) {
  // Anything but a string counts as empty, numbers included.
  const std::string* text = value.asString();
  if (text == nullptr) return true;
  return text->empty() || *text == "undefined" || *text == "null";
}

std::string QXLogHelper::ispName() {
  return "无运营商";
}
