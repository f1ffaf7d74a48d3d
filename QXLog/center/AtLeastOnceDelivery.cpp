#include "QXLog/center/AtLeastOnceDelivery.h"

#include <algorithm>
#include <chrono>

#include "QXLog/center/PushTimer.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/center/Upload.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Json.h"
#include "QXLog/support/QueueFiles.h"
#include "QXLog/support/Token.h"

namespace qxlog::center {
namespace {

using Outcome = QXLogCenter::BatchOutcome;

// A refused batch is sent this many more times, then dropped.
constexpr int kMaxRefusals = 2;
// Single records refused in a row after which the server is taken to refuse
// everything (a wrong key or token): batches are then dropped whole.
constexpr int kRefusedInARow = 3;

std::string stringField(const Dictionary& envelope, std::string_view key) {
  const Value* value = envelope.find(key);
  return value != nullptr && value->asString() != nullptr ? *value->asString() : std::string();
}

}  // namespace

AtLeastOnceDelivery::AtLeastOnceDelivery(QXLogCenter& center)
    : center_(center),
      durable_(std::make_shared<platform::DurableFlush>(center.env().globalQueue())),
      journal_(center.env(), durable_),
      diagnoses_(center) {}

AtLeastOnceDelivery::~AtLeastOnceDelivery() = default;

std::string AtLeastOnceDelivery::inFlightPath() const {
  return center_.env().documentsPath(kJournalInFlightFile);
}

// The journal is read on first use; a described queue file left from before
// is carried into it once; a sealed batch left by an earlier process is out
// again as it was.
void AtLeastOnceDelivery::openLocked(Reports& reports) {
  if (opened_) return;
  opened_ = true;
  const platform::Env& env = center_.env();
  if (std::size_t damaged = journal_.open(); damaged != 0) {
    reports.reports.push_back({Outcome::kDropped, damaged, "journal damaged"});
  }
  for (std::string& line : journal_.takeNotes()) reports.lines.push_back(std::move(line));
  if (env.files().exists(env.documentsPath(kActionQueueFile))) {
    Array carried = support::readArray(env, kActionQueueFile).value_or(Array());
    for (const Value& record : carried) {
      std::string payload;
      serial::appendJson(payload, record);
      if (record.isDictionary()) journal_.append(payload);
    }
    reports.removeQueueFile = true;
  }
  if (auto read = platform::readRegularFile(inFlightPath(), SealedBatch::kMaxFileBytes)) {
    std::optional<SealedBatch> batch = SealedBatch::decode(read->bytes);
    const auto& pending = journal_.pending();
    // A batch whose records are no longer pending was settled already.
    if (batch && !pending.empty() && pending.front().end <= batch->end) {
      batch->records = static_cast<std::size_t>(
          std::count_if(pending.begin(), pending.end(),
                        [&](const Journal::Entry& entry) { return entry.end <= batch->end; }));
      sealed_ = std::move(batch);
    } else {
      env.files().remove(inFlightPath());
    }
  }
}

void AtLeastOnceDelivery::dropSealedLocked() {
  journal_.settleThrough(sealed_->end);
  sealed_.reset();
  center_.env().files().remove(inFlightPath());
  out_ = false;
  inFlight_ = false;
  waitingRetry_ = false;
  ++retryTicket_;
  failures_ = 0;
  refusals_ = 0;
  ++generation_;
}

// At the queue limit the oldest records make room, in steps of a hundredth
// of the limit so that a long outage does not rewrite the position on every
// store; a sealed batch holding them goes whole.
void AtLeastOnceDelivery::makeRoomLocked(Reports& reports, std::size_t batch) {
  std::size_t limit = std::max<std::size_t>(center_.queueLimit(), 1);
  // Below two batches the batch that is out would be dropped by the records
  // gathering behind it, and nothing would ever be delivered.
  if (std::size_t needed = 2 * batch; limit < needed) {
    if (raisedLimit_ != needed) {
      raisedLimit_ = needed;
      reports.lines.push_back("QXLog: queue limit " + std::to_string(limit) +
                              " is below what one batch needs, raised to " +
                              std::to_string(needed));
    }
    limit = needed;
  }
  std::size_t size = journal_.pending().size();
  if (size < limit) return;
  std::size_t want = size - limit + std::max<std::size_t>(limit / 100, 1);
  std::size_t dropped = 0;
  // A batch whose upload is out may yet arrive: its answer tells.
  std::size_t awaiting = 0;
  if (sealed_) {
    dropped = sealed_->records;
    if (inFlight_) {
      awaiting = dropped;
      leftOut_[generation_] = dropped;
    }
    dropSealedLocked();
  }
  suspect_ = 0;
  piece_ = 0;
  if (dropped < want) {
    // A batch being cut now may hold what goes: it is cut again later.
    if (sealing_) ++generation_;
    std::size_t more = std::min(want - dropped, journal_.pending().size());
    if (more != 0) journal_.settleThrough(journal_.pending()[more - 1].end);
    dropped += more;
  }
  reports.lines.push_back("QXLog: queue limit reached, dropped " + std::to_string(dropped) +
                          " oldest records");
  if (dropped > awaiting) {
    reports.reports.push_back({Outcome::kDropped, dropped - awaiting, "queue limit"});
  }
}

void AtLeastOnceDelivery::storeAction(Dictionary record) {
  std::string payload;
  serial::appendJson(payload, Value(std::move(record)));
  const auto batch = static_cast<std::size_t>(
      std::clamp<int64_t>(center_.format().limitLogCount(), 1, kMaxBatchRecords));
  Reports reports;
  {
    MutexLock lock(mutex_);
    openLocked(reports);
    if (payload.size() > Journal::kMaxFrameBytes) {
      // Never kept, so it can hold nothing back.
      reports.lines.push_back("QXLog: a record of " + std::to_string(payload.size()) +
                              " bytes is over the journal's bound of " +
                              std::to_string(Journal::kMaxFrameBytes) + " bytes, dropped");
      reports.reports.push_back({Outcome::kDropped, 1, "record too large"});
    } else if (makeRoomLocked(reports, batch); !journal_.append(payload)) {
      reports.lines.push_back("QXLog: a record could not be written to the journal, dropped");
      reports.reports.push_back({Outcome::kDropped, 1, "journal not writable"});
    }
  }
  tell(reports);
}

std::size_t AtLeastOnceDelivery::actionCount() {
  Reports reports;
  std::size_t count = 0;
  {
    MutexLock lock(mutex_);
    openLocked(reports);
    count = journal_.pending().size();
  }
  tell(reports);
  return count;
}

Array AtLeastOnceDelivery::actionRecords() {
  Reports reports;
  Array records;
  {
    MutexLock lock(mutex_);
    openLocked(reports);
    for (const Journal::Entry& entry : journal_.pending()) {
      if (std::optional<Value> record = serial::parseJson(*entry.payload)) {
        records.push_back(std::move(*record));
      }
    }
  }
  tell(reports);
  return records;
}

std::size_t AtLeastOnceDelivery::unconfirmed() {
  return actionCount() + diagnoses_.count();
}

bool AtLeastOnceDelivery::keepDiagnosis(const Dictionary& envelope, const std::string& url,
                                        bool announceGzip) {
  diagnoses_.keep(envelope, url, announceGzip);
  return true;
}

void AtLeastOnceDelivery::submit() {
  Reports reports;
  std::optional<SealedBatch> resend;
  uint64_t generation = 0;
  bool cut = false;
  {
    MutexLock lock(mutex_);
    openLocked(reports);
    generation = generation_;
    if (out_ || sealing_) {
    } else if (sealed_) {
      out_ = true;
      resend = sealed_;
    } else if (!journal_.pending().empty()) {
      sealing_ = true;
      cut = true;
    }
  }
  tell(reports);
  // Diagnoses waiting for their turn go out with a submission.
  diagnoses_.resume();
  if (resend) return send(*resend, generation);
  if (cut) center_.env().globalQueue()->async([this, generation] { seal(generation); });
}

void AtLeastOnceDelivery::flush() {
  std::optional<SealedBatch> resend;
  uint64_t generation = 0;
  {
    MutexLock lock(mutex_);
    flushing_ = true;
    // A batch waiting for its retry goes now.
    if (waitingRetry_ && sealed_) {
      waitingRetry_ = false;
      ++retryTicket_;
      resend = sealed_;
      generation = generation_;
    }
  }
  if (resend) return send(*resend, generation);
  submit();
}

void AtLeastOnceDelivery::seal(uint64_t generation) {
  std::vector<std::shared_ptr<const std::string>> payloads;
  SealedBatch batch;
  {
    MutexLock lock(mutex_);
    const auto& pending = journal_.pending();
    if (generation != generation_ || pending.empty()) {
      sealing_ = false;
      return;
    }
    batch.records = std::min(pending.size(), kMaxBatchRecords);
    if (piece_ != 0) batch.records = std::min(batch.records, piece_);
    payloads.reserve(batch.records);
    for (std::size_t i = 0; i < batch.records; ++i) payloads.push_back(pending[i].payload);
    batch.end = pending[batch.records - 1].end;
  }
  std::string json = "[";
  for (const auto& payload : payloads) {
    if (json.size() > 1) json += ',';
    json += *payload;
  }
  json += ']';
  Dictionary envelope = center_.envelopeOfJson(json);
  if (envelope.empty()) {
    MutexLock lock(mutex_);
    sealing_ = false;
    return;
  }
  envelope = traceEnvelopeText(center_.env(), std::move(envelope));
  batch.logData = stringField(envelope, "log_data");
  batch.token = stringField(envelope, "token");
  center_.env().files().replaceAtomically(inFlightPath(), batch.encode());
  {
    MutexLock lock(mutex_);
    sealing_ = false;
    // Dropped at the queue limit while it was being sealed.
    if (generation != generation_) {
      center_.env().files().remove(inFlightPath());
      return;
    }
    sealed_ = batch;
    out_ = true;
  }
  send(batch, generation);
}

void AtLeastOnceDelivery::send(const SealedBatch& batch, uint64_t generation) {
  // The sealed "log_data" goes as it is; the token is the day's, as the log
  // server accepts only recent ones (the batch may outlast its day).
  Dictionary fields;
  fields.setString("log_data", batch.logData);
  fields.setString("token", support::dayToken(center_.env().clock()));
  platform::HttpRequest request =
      makeUploadRequest(fields, center_.format().pushLogUrl().value_or(""), false);
  {
    MutexLock lock(mutex_);
    if (generation == generation_) inFlight_ = true;
  }
  const platform::Env& env = center_.env();
  env.globalQueue()->async([this, generation, request = std::move(request)] {
    platform::HttpResponse response = center_.env().performHttp(request);
    center_.env().mainQueue()->async(
        [this, generation, response = std::move(response)] { answered(generation, response); });
  });
}

void AtLeastOnceDelivery::answered(uint64_t generation, const platform::HttpResponse& response) {
  std::size_t leftOut = 0;
  {
    MutexLock lock(mutex_);
    if (auto it = leftOut_.find(generation); it != leftOut_.end()) {
      leftOut = it->second;
      leftOut_.erase(it);
    } else if (generation != generation_ || !sealed_) {
      return;
    } else {
      inFlight_ = false;  // from here on a drop at the queue limit is final
    }
  }
  AnswerVerdict verdict = judgeAnswer(response);
  if (leftOut != 0) {
    // Its records left the journal at the queue limit: not sent again.
    bool arrived = verdict.kind == AnswerVerdict::Kind::kConfirmed;
    tell({{{arrived ? Outcome::kConfirmed : Outcome::kDropped, leftOut,
            arrived ? "" : "queue limit"}},
          {},
          false});
    return center_.conditionAndSubmitLog();
  }
  if (verdict.kind == AnswerVerdict::Kind::kConfirmed) return settle(Outcome::kConfirmed, "");
  if (verdict.kind == AnswerVerdict::Kind::kTransient) {
    return retry(verdict.reason, verdict.retryAfterSeconds);
  }
  std::size_t split = 0;
  bool again = false;
  {
    MutexLock lock(mutex_);
    if (generation != generation_ || !sealed_) return;
    if (sealed_->records > 1 && refusedInARow_ < kRefusedInARow) {
      split = sealed_->records;
      splitLocked();
    } else {
      again = ++refusals_ <= kMaxRefusals;
    }
  }
  if (split != 0) {
    tell({{{Outcome::kRetrying, split, verdict.reason}}, {}, false});
    return submit();
  }
  if (again) return retry(verdict.reason, -1);
  settle(Outcome::kDropped, verdict.reason);
}

void AtLeastOnceDelivery::splitLocked() {
  suspect_ = sealed_->records;
  piece_ = (suspect_ + 1) / 2;
  sealed_.reset();
  center_.env().files().remove(inFlightPath());
  out_ = false;
  waitingRetry_ = false;
  ++retryTicket_;
  failures_ = 0;
  refusals_ = 0;
  ++generation_;
}

void AtLeastOnceDelivery::retry(const std::string& reason, int64_t retryAfterSeconds) {
  std::chrono::nanoseconds delay{};
  std::size_t records = 0;
  uint64_t ticket = 0;
  {
    MutexLock lock(mutex_);
    delay = backoff_.next(failures_++, retryAfterSeconds);
    records = sealed_ ? sealed_->records : 0;
    ticket = ++retryTicket_;
    waitingRetry_ = true;
  }
  tell({{{Outcome::kRetrying, records, reason}}, {}, false});
  // The batch stays out until its retry, so that no other upload overtakes it.
  center_.env().mainQueue()->post(
      [this, ticket] {
        {
          MutexLock lock(mutex_);
          if (ticket != retryTicket_) return;
          waitingRetry_ = false;
          out_ = false;
        }
        submit();
      },
      delay);
}

void AtLeastOnceDelivery::settle(Outcome outcome, const std::string& reason) {
  std::size_t records = 0;
  bool more = false;
  {
    MutexLock lock(mutex_);
    if (!sealed_) return;
    records = sealed_->records;
    // The records of a split batch were due: they go on at once, also
    // those after the suspect ones.
    bool splitGoesOn = suspect_ != 0;
    if (suspect_ != 0) {
      suspect_ -= std::min(records, suspect_);
      piece_ = suspect_ == 0 ? 0 : std::min(piece_, suspect_);
    }
    if (outcome == Outcome::kConfirmed) {
      refusedInARow_ = 0;
    } else if (records == 1) {
      ++refusedInARow_;
    }
    dropSealedLocked();
    if (journal_.pending().empty()) flushing_ = false;
    more = flushing_ || (splitGoesOn && !journal_.pending().empty());
  }
  if (outcome == Outcome::kDropped) {
    center_.env().consoleWrite("QXLog: dropped a batch of " + std::to_string(records) +
                               " records after " + std::to_string(kMaxRefusals + 1) +
                               " refusals (" + reason + ")");
  }
  tell({{{outcome, records, reason}}, {}, false});
  if (outcome == Outcome::kConfirmed) {
    center_.startTime(pushIntervalSeconds(center_.format().push_interval_time()));
  }
  // A backlog keeps going out, oldest first; a flush sends the rest whatever
  // the batch size.
  if (more) return submit();
  center_.conditionAndSubmitLog();
}

void AtLeastOnceDelivery::tell(const Reports& reports) {
  if (reports.removeQueueFile) support::removeQueueFile(center_.env(), kActionQueueFile);
  for (const std::string& line : reports.lines) center_.env().consoleWrite(line);
  for (const Report& report : reports.reports) {
    center_.reportBatch(report.outcome, report.records, report.reason);
  }
  if (!diagnosesResumed_.exchange(true)) diagnoses_.resume();
}

}  // namespace qxlog::center
