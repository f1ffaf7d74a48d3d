#include "QXLog/platform/Env.h"

#include "QXLog/platform/AfterUnlock.h"
#include "QXLog/platform/BuiltInQueues.h"
#include "QXLog/platform/CurlTransport.h"
#include "QXLog/platform/DocumentsDirectory.h"
#include "QXLog/platform/HttpUrl.h"
#include "QXLog/platform/PosixDeviceFacts.h"
#include "QXLog/platform/PosixFileSystem.h"

namespace qxlog::platform {
namespace {

template <typename Part, typename MakeDefault>
std::shared_ptr<Part> orDefault(std::shared_ptr<Part> part, MakeDefault makeDefault) {
  return part ? std::move(part) : makeDefault();
}

std::shared_ptr<FileSystem> systemFiles(std::shared_ptr<Executor> flushExecutor) {
  return std::make_shared<PosixFileSystem>(PosixFileSystem::Options{std::move(flushExecutor)});
}

}  // namespace

Env::Env(Parts parts)
    : clock_(orDefault(std::move(parts.clock), systemClock)),
      ownMainQueue_(orDefault<Executor>(std::move(parts.mainQueue), builtInMainQueue)),
      globalQueue_(orDefault(std::move(parts.globalQueue), builtInGlobalQueue)),
      http_(orDefault<HttpTransport>(std::move(parts.http),
                                     [] { return std::make_shared<CurlTransport>(); })),
      files_(orDefault(std::move(parts.files), [this] { return systemFiles(globalQueue_); })),
      facts_(orDefault<const DeviceFacts>(std::move(parts.facts),
                                          [] { return std::make_shared<PosixDeviceFacts>(); })),
      ownConsole_(std::make_shared<const ConsoleSink>(std::move(parts.console))),
      ownDocuments_(std::move(parts.documents)),
      mainQueue_(ownMainQueue_),
      console_(ownConsole_) {
  setDocumentsDirectory("");
}

std::shared_ptr<Env> Env::Default() {
  // Never destroyed: workers may still use it while the process exits.
  static auto* env = new std::shared_ptr<Env>(std::make_shared<Env>(Parts{}));
  return *env;
}

std::shared_ptr<Executor> Env::mainQueue() const {
  MutexLock lock(mutex_);
  return mainQueue_;
}

HttpResponse Env::performHttp(const HttpRequest& request) const {
  if (!isValidHttpUrl(request.url)) {
    HttpResponse response;
    response.error = "not a valid URL";
    return response;
  }
  return http_->perform(request);
}

std::string Env::documentsDirectory() const {
  MutexLock lock(mutex_);
  if (documents_.empty()) {
    documents_ = documentsDirectoryFromEnvironment();
    files_->createDirectories(documents_);
  }
  return documents_;
}

std::string Env::documentsPath(std::string_view fileName) const {
  std::string path = documentsDirectory();
  if (!path.empty() && path.back() != '/') path += '/';
  path += fileName;
  return path;
}

void Env::consoleWrite(std::string_view line) const {
  std::shared_ptr<const ConsoleSink> sink;
  {
    MutexLock lock(consoleMutex_);
    sink = console_;
  }
  // Under a library lock the line waits for the lock's release, so that a
  // handler may call back into the library.
  AfterUnlock::runOrDefer([this, sink = std::move(sink), text = std::string(line)] {
    if (*sink) {
      (*sink)(text);
    } else {
      writeToSystemConsole(*clock_, text);
    }
  });
}

void Env::setMainQueue(std::shared_ptr<Executor> executor) {
  MutexLock lock(mutex_);
  mainQueue_ = executor ? std::move(executor) : ownMainQueue_;
}

void Env::setDocumentsDirectory(std::string path) {
  MutexLock lock(mutex_);
  documents_ = path.empty() ? ownDocuments_ : std::move(path);
  if (!documents_.empty()) files_->createDirectories(documents_);
}

void Env::setConsoleSink(ConsoleSink sink) {
  auto replacement = sink ? std::make_shared<const ConsoleSink>(std::move(sink)) : ownConsole_;
  MutexLock lock(consoleMutex_);
  console_.swap(replacement);
  // The sink replaced is released after the lock, in case its end runs code.
}

}  // namespace qxlog::platform
