// The queue-file methods of QXLogHelper: whole collections mirrored in XML
// property lists in the Documents directory.
#include "QXLog/support/QueueFiles.h"

#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Console.h"
#include "QXLog/platform/Documents.h"
#include "QXLog/platform/Files.h"
#include "QXLog/serial/PropertyList.h"

namespace platform = qxlog::platform;
namespace serial = qxlog::serial;

namespace {

// The file's path, after making sure that a file exists there.
std::string ensureFile(std::string_view plist) {
  std::string path = platform::documentsPath(plist);
  if (!platform::fileExists(path)) platform::createEmptyFile(path);
  return path;
}

template <typename Collection>
void write(const Collection& root, std::string_view plist) {
  std::string path = ensureFile(plist);
  std::string xml;
  xml.reserve(256 + root.size() * 512);
  serial::appendXmlPropertyList(xml, root);
  platform::writeFileAtomically(path, xml);
}

// Reads a queue file when its queue is first used. Writes of queue files
// happen under the center's lock, as do these reads, so no write is under way
// and whatever temporaries lie beside the file were left by a process that
// died while writing.
std::optional<qxlog::Value> read(const std::string& path) {
  platform::removeStaleTemporaries(path);
  std::optional<std::string> bytes = platform::readFile(path);
  if (!bytes) return std::nullopt;
  return serial::parsePropertyList(*bytes);
}

}  // namespace

const QXLogHelper::Array& QXLogHelper::store(const Array& array, std::string_view plist) {
  write(array, plist);
  return array;
}

std::optional<QXLogHelper::Array> QXLogHelper::store(std::nullptr_t, std::string_view plist) {
  std::optional<Value> root = read(ensureFile(plist));
  if (!root || !root->isArray()) return std::nullopt;
  return std::move(*root->asArray());
}

const QXLogHelper::Dictionary& QXLogHelper::storeDict(const Dictionary& dictionary,
                                                      std::string_view plist) {
  write(dictionary, plist);
  return dictionary;
}

std::optional<QXLogHelper::Dictionary> QXLogHelper::storeDict(std::nullptr_t,
                                                              std::string_view plist) {
  std::optional<Value> root = read(ensureFile(plist));
  if (!root || !root->isDictionary()) return std::nullopt;
  return std::move(*root->asDictionary());
}

void qxlog::support::writeQueueFile(std::string_view xml, std::string_view plist) {
  platform::writeFileAtomically(ensureFile(plist), xml);
}

void QXLogHelper::removePlist(std::string_view plist) {
  if (platform::removeFile(platform::documentsPath(plist))) {
    platform::consoleWrite("文件删除成功 = " + std::string(plist));
  }
}
