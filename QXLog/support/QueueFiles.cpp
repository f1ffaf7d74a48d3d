#include "QXLog/support/QueueFiles.h"

#include "QXLog/serial/PropertyList.h"

namespace qxlog::support {
namespace {

// The file's path, after making sure that a file exists there.
std::string ensureFile(const platform::Env& env, std::string_view plist) {
  std::string path = env.documentsPath(plist);
  if (!env.files().exists(path)) env.files().createEmpty(path);
  return path;
}

template <typename Collection>
void write(const platform::Env& env, const Collection& root, std::string_view plist) {
  std::string path = ensureFile(env, plist);
  std::string xml;
  xml.reserve(256 + root.size() * 512);
  serial::appendXmlPropertyList(xml, root);
  env.files().replaceAtomically(path, xml);
}

// Reads a queue file when its queue is first used. Writes of queue files
// happen under the center's lock, as do these reads, so no write is under way
// and whatever temporaries lie beside the file were left by a process that
// died while writing.
std::optional<Value> read(const platform::Env& env, std::string_view plist) {
  std::string path = ensureFile(env, plist);
  env.files().removeStaleTemporaries(path);
  platform::RegularFileRead file = env.files().readRegularFile(path, kMaxQueueFileBytes);
  using Outcome = platform::RegularFileRead::Outcome;
  if (file.outcome == Outcome::kNotRegular) {
    env.consoleWrite("QXLog: queue file " + std::string(plist) +
                     " is not a regular file; read as damaged");
  } else if (file.outcome == Outcome::kTooLarge) {
    env.consoleWrite("QXLog: queue file " + std::string(plist) + " holds more than " +
                     std::to_string(kMaxQueueFileBytes) + " bytes; read as damaged");
  }
  if (file.outcome != Outcome::kRead) return std::nullopt;
  return serial::parsePropertyList(file.contents);
}

}  // namespace

void writeQueueFile(const platform::Env& env, std::string_view xml, std::string_view plist) {
  env.files().replaceAtomically(ensureFile(env, plist), xml);
}

void writeCollection(const platform::Env& env, const Array& root, std::string_view plist) {
  write(env, root, plist);
}

void writeCollection(const platform::Env& env, const Dictionary& root, std::string_view plist) {
  write(env, root, plist);
}

std::optional<Array> readArray(const platform::Env& env, std::string_view plist) {
  std::optional<Value> root = read(env, plist);
  if (!root || !root->isArray()) return std::nullopt;
  return std::move(*root->asArray());
}

std::optional<Dictionary> readDictionary(const platform::Env& env, std::string_view plist) {
  std::optional<Value> root = read(env, plist);
  if (!root || !root->isDictionary()) return std::nullopt;
  return std::move(*root->asDictionary());
}

void removeQueueFile(const platform::Env& env, std::string_view plist) {
  if (env.files().remove(env.documentsPath(plist))) {
    env.consoleWrite("文件删除成功 = " + std::string(plist));
  }
}

}  // namespace qxlog::support
