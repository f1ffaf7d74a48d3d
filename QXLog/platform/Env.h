// Everything the library takes from the operating system, in one object: the
// clocks, the main and global queues, HTTP, files and the Documents
// directory, the console, and the device facts. The log center holds one and hands its parts to
// the code below it. Env::Default() is the system's; tests and fuzzing build
// one from parts of their own (a virtual clock, a deterministic dispatcher, a
// transport without a network, a file system that fails on demand).
#ifndef QXLOG_PLATFORM_ENV_H_
#define QXLOG_PLATFORM_ENV_H_

#include <memory>
#include <string>
#include <string_view>

#include "QXLog/QXLogExecutor.h"
#include "QXLog/platform/Clock.h"
#include "QXLog/platform/Console.h"
#include "QXLog/platform/DeviceFacts.h"
#include "QXLog/platform/FileSystem.h"
#include "QXLog/platform/HttpTransport.h"
#include "QXLog/platform/Mutex.h"

namespace qxlog::platform {

class Env {
 public:
  // Parts left empty are the system's.
  struct Parts {
    std::shared_ptr<const Clock> clock{};
    std::shared_ptr<Executor> mainQueue{};
    std::shared_ptr<Executor> globalQueue{};
    std::shared_ptr<HttpTransport> http{};
    std::shared_ptr<FileSystem> files{};
    // Empty: the system console (Console.h).
    ConsoleSink console{};
    // Empty: chosen from the process environment (DocumentsDirectory.h).
    std::string documents{};
    std::shared_ptr<const DeviceFacts> facts{};
  };

  explicit Env(Parts parts);
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;

  // The system's environment, one for the whole process.
  static std::shared_ptr<Env> Default();

  const Clock& clock() const { return *clock_; }
  std::shared_ptr<const Clock> sharedClock() const { return clock_; }
  double wallSeconds() const { return clock_->wallSeconds(); }
  std::shared_ptr<Executor> mainQueue() const QXLOG_EXCLUDES(mutex_);
  std::shared_ptr<Executor> globalQueue() const { return globalQueue_; }
  // Exchanges the request over the transport; an invalid URL fails at once.
  HttpResponse performHttp(const HttpRequest& request) const;
  FileSystem& files() const { return *files_; }
  const DeviceFacts& facts() const { return *facts_; }
  // The Documents directory, created with its parents the first time it is
  // resolved, and the path of a file in it.
  std::string documentsDirectory() const QXLOG_EXCLUDES(mutex_);
  std::string documentsPath(std::string_view fileName) const;
  // Hands the line to the console sink on the calling thread, with no lock of
  // the library held: a sink may write lines of its own or call back into the
  // library, and sinks on several threads may run at once. The system console
  // writes each line whole.
  void consoleWrite(std::string_view line) const QXLOG_EXCLUDES(consoleMutex_);

  // The host's choices, made through the public interface; an empty value
  // returns to the env's own part.
  void setMainQueue(std::shared_ptr<Executor> executor) QXLOG_EXCLUDES(mutex_);
  void setDocumentsDirectory(std::string path) QXLOG_EXCLUDES(mutex_);
  void setConsoleSink(ConsoleSink sink) QXLOG_EXCLUDES(consoleMutex_);

 private:
  const std::shared_ptr<const Clock> clock_;
  const std::shared_ptr<Executor> ownMainQueue_;
  const std::shared_ptr<Executor> globalQueue_;
  const std::shared_ptr<HttpTransport> http_;
  const std::shared_ptr<FileSystem> files_;
  const std::shared_ptr<const DeviceFacts> facts_;
  const std::shared_ptr<const ConsoleSink> ownConsole_;  // holds an empty sink when none
  const std::string ownDocuments_;

  mutable Mutex mutex_;
  std::shared_ptr<Executor> mainQueue_ QXLOG_GUARDED_BY(mutex_);
  mutable std::string documents_ QXLOG_GUARDED_BY(mutex_);  // empty until resolved
  // Taken only to copy or replace the sink, never while it runs.
  mutable Mutex consoleMutex_;
  std::shared_ptr<const ConsoleSink> console_ QXLOG_GUARDED_BY(consoleMutex_);
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_ENV_H_
