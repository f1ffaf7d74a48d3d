#include "QXLog/center/DiagnosisQueue.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include "QXLog/center/Upload.h"
#include "QXLog/platform/Env.h"
#include "QXLog/platform/FileSystem.h"
#include "QXLog/serial/Json.h"
#include "QXLog/support/Token.h"

namespace qxlog::center {
namespace {

using Outcome = QXLogCenter::BatchOutcome;

constexpr int kMaxRefusals = 2;

}  // namespace

DiagnosisQueue::DiagnosisQueue(QXLogCenter& center) : center_(center) {}

std::deque<Dictionary> DiagnosisQueue::parseKept(std::string_view json) {
  std::deque<Dictionary> kept;
  std::optional<Value> root = serial::parseJson(json);
  if (!root || !root->asArray()) return kept;
  for (const Value& entry : *root->asArray()) {
    const Dictionary* fields = entry.asDictionary();
    if (fields == nullptr || fields->find("envelope") == nullptr ||
        !fields->find("envelope")->isDictionary()) {
      continue;
    }
    kept.push_back(*fields);
    if (kept.size() == kMaxKept) break;
  }
  return kept;
}

std::string DiagnosisQueue::encodeKept(const std::deque<Dictionary>& kept) {
  std::string json;
  serial::appendJson(json, Value(Array(kept.begin(), kept.end())));
  return json;
}

void DiagnosisQueue::openLocked() {
  if (opened_) return;
  opened_ = true;
  const platform::Env& env = center_.env();
  platform::RegularFileRead read =
      env.files().readRegularFile(env.documentsPath(kDiagnosisQueueFile), kMaxFileBytes);
  if (read.outcome == platform::RegularFileRead::Outcome::kRead) kept_ = parseKept(read.contents);
}

void DiagnosisQueue::saveLocked() {
  const platform::Env& env = center_.env();
  std::string path = env.documentsPath(kDiagnosisQueueFile);
  if (kept_.empty()) {
    env.files().remove(path);
    return;
  }
  env.files().replaceAtomically(path, encodeKept(kept_));
}

void DiagnosisQueue::keep(const Dictionary& envelope, const std::string& url, bool announceGzip) {
  Dictionary entry;
  entry.set("url", Value(url));
  entry.set("gzip", Value(announceGzip));
  entry.set("envelope", Value(envelope));
  bool dropped = false;
  {
    MutexLock lock(mutex_);
    openLocked();
    if (kept_.size() >= kMaxKept) {
      // The oldest goes; if its request is out, its answer tells whether it
      // arrived, and is otherwise stale.
      kept_.pop_front();
      dropped = !inFlight_;
      if (inFlight_) leftOut_.insert(generation_);
      if (out_) {
        ++generation_;
        out_ = false;
        inFlight_ = false;
        failures_ = 0;
        refusals_ = 0;
      }
    }
    kept_.push_back(std::move(entry));
    saveLocked();
  }
  if (dropped) center_.reportBatch(Outcome::kDropped, 1, "queue limit");
  sendNext();
}

void DiagnosisQueue::resume() {
  sendNext();
}

std::size_t DiagnosisQueue::count() {
  MutexLock lock(mutex_);
  openLocked();
  return kept_.size();
}

void DiagnosisQueue::sendNext() {
  Dictionary entry;
  uint64_t generation = 0;
  {
    MutexLock lock(mutex_);
    openLocked();
    if (out_ || kept_.empty()) return;
    out_ = true;
    inFlight_ = true;
    entry = kept_.front();
    generation = generation_;
  }
  Dictionary envelope = *entry.find("envelope")->asDictionary();
  // The day's token: the log server accepts only recent ones.
  if (envelope.find("token") != nullptr) {
    envelope.setString("token", support::dayToken(center_.env().clock()));
  }
  const Value* url = entry.find("url");
  const bool* gzip = entry.find("gzip") != nullptr ? entry.find("gzip")->asBool() : nullptr;
  platform::HttpRequest request =
      makeUploadRequest(envelope, url != nullptr && url->asString() ? *url->asString() : "",
                        gzip != nullptr && *gzip);
  center_.env().globalQueue()->async([this, generation, request = std::move(request)] {
    platform::HttpResponse response = center_.env().performHttp(request);
    center_.env().mainQueue()->async(
        [this, generation, response = std::move(response)] { answered(generation, response); });
  });
}

void DiagnosisQueue::answered(uint64_t generation, const platform::HttpResponse& response) {
  AnswerVerdict verdict = judgeAnswer(response);
  Outcome outcome = Outcome::kConfirmed;
  std::chrono::nanoseconds delay{};
  {
    MutexLock lock(mutex_);
    if (leftOut_.erase(generation) != 0) {
      // Dropped at the limit while out: it arrived, or it is dropped.
      bool arrived = verdict.kind == AnswerVerdict::Kind::kConfirmed;
      outcome = arrived ? Outcome::kConfirmed : Outcome::kDropped;
      verdict.reason = arrived ? "" : "queue limit";
    } else if (generation != generation_ || kept_.empty()) {
      return;
    } else {
      inFlight_ = false;
      bool settles = verdict.kind == AnswerVerdict::Kind::kConfirmed ||
                     (verdict.kind == AnswerVerdict::Kind::kRefused && ++refusals_ > kMaxRefusals);
      if (settles) {
        outcome = verdict.kind == AnswerVerdict::Kind::kConfirmed ? Outcome::kConfirmed
                                                                  : Outcome::kDropped;
        kept_.pop_front();
        saveLocked();
        out_ = false;
        failures_ = 0;
        refusals_ = 0;
        ++generation_;
      } else {
        outcome = Outcome::kRetrying;
        delay = backoff_.next(failures_++, verdict.retryAfterSeconds);
      }
    }
  }
  center_.reportBatch(outcome, 1, verdict.reason);
  if (outcome != Outcome::kRetrying) return sendNext();
  // The diagnosis stays out until its retry, so that none overtakes it.
  center_.env().mainQueue()->post(
      [this, generation] {
        {
          MutexLock lock(mutex_);
          if (generation != generation_) return;
          out_ = false;
        }
        sendNext();
      },
      delay);
}

}  // namespace qxlog::center
