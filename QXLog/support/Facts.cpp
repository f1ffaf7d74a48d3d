// Device facts: emptiness of values, disk sizes and the carrier name.
#include "QXLog/support/Facts.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "QXLog/QXLogHelper.h"
#include "QXLog/serial/Text.h"

namespace qxlog::support {

double totalDiskSpaceOf(const platform::Env& env, const std::string& path) {
  struct statvfs info {};
  if (statvfs(path.c_str(), &info) != 0) {
    const int code = errno;
    env.consoleWrite("Error Obtaining System Memory Info: Domain = NSPOSIXErrorDomain, Code = " +
                     serial::formatInteger(code));
    return 0.0;
  }
  // The size passes through a float on purpose: the figure keeps 24 bits.
  const uint64_t bytes = static_cast<uint64_t>(info.f_blocks) * info.f_frsize;
  const double size = static_cast<double>(static_cast<float>(bytes));
  const double gigabytes = size * 0.0009765625 * 0.0009765625 * 0.0009765625;
  env.consoleWrite("Memory Capacity of " + serial::formatFixed(gigabytes, 6) + " GB .");
  return size;
}

double freeDiskSpaceOf(const std::string& path) {
  struct statvfs info {};
  if (statvfs(path.c_str(), &info) != 0) return kUnknownFreeSpace;
  // f_bavail counts fragments of f_frsize bytes; the product wraps, never traps.
  const uint64_t bytes =
      static_cast<uint64_t>(info.f_frsize) * static_cast<uint64_t>(info.f_bavail);
  return static_cast<double>(bytes);
}

}  // namespace qxlog::support

namespace support = qxlog::support;

bool QXLogHelper::isEmptyOrNull(const Value& value) {
  // Anything but a string counts as empty, numbers included.
  const std::string* text = value.asString();
  if (text == nullptr) return true;
  return text->empty() || *text == "undefined" || *text == "null";
}

// The free space is measured on "/var"; the total where the queue files live
// (QXLogHelper's facade in the center).
double QXLogHelper::freeDiskSpace() {
  return support::freeDiskSpaceOf("/var");
}

std::string QXLogHelper::ispName() {
  return "无运营商";
}
