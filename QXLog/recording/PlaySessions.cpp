#include "QXLog/recording/PlaySessions.h"

#include <algorithm>

#include "QXLog/QXLogCenter.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/format/PlaySessionRecords.h"
#include "QXLog/platform/Env.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/recording/PlaySession.h"
#include "QXLog/serial/PropertyList.h"

namespace qxlog::recording {
namespace {

bool isPlayId(std::string_view text) {
  return text.size() == 32 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

}  // namespace

PlaySessions& PlaySessions::instance() {
  static PlaySessions* sessions = new PlaySessions();
  return *sessions;
}

std::string PlaySessions::newId() {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::lock_guard lock(mutex_);
  std::string id;
  id.reserve(32);
  for (int half = 0; half < 2; ++half) {
    uint64_t bits = random_();
    for (int i = 0; i < 16; ++i, bits >>= 4) id.push_back(kDigits[bits & 15]);
  }
  return id;
}

void PlaySessions::opened(const std::string& playId) {
  std::vector<Leftover> leftovers;
  {
    std::lock_guard lock(mutex_);
    QXLogCenter& center = QXLogCenter::center();
    leftovers = startLocked(center);
    listed_.push_back(playId);
    writeIndexLocked(center);
  }
  send(std::move(leftovers));
}

void PlaySessions::closed(const std::string& playId) {
  std::lock_guard lock(mutex_);
  auto found = std::find(listed_.begin(), listed_.end(), playId);
  if (found == listed_.end()) return;
  listed_.erase(found);
  writeIndexLocked(QXLogCenter::center());
}

void PlaySessions::started() {
  QXLogCenter* center = center::CenterRegistry::existing();
  if (center == nullptr) return;
  std::vector<Leftover> leftovers;
  {
    std::lock_guard lock(mutex_);
    if (recoveredFor_ == center) return;
    leftovers = startLocked(*center);
    if (!leftovers.empty()) writeIndexLocked(*center);
  }
  send(std::move(leftovers));
}

std::vector<PlaySessions::Leftover> PlaySessions::startLocked(QXLogCenter& center) {
  if (recoveredFor_ == &center) return {};
  recoveredFor_ = &center;
  center.setPushTimerHandler([] { PlaySessions::instance().sendParts(); });
  return recoverLocked(center);
}

// In file order: each play's actions, then its report.
void PlaySessions::send(std::vector<Leftover> leftovers) {
  for (Leftover& leftover : leftovers) {
    storePlayPart(std::move(leftover.play.record), leftover.id, true);
    if (leftover.play.report) postPlayReport(std::move(*leftover.play.report));
  }
}

void PlaySessions::track(const std::shared_ptr<PlaySession>& play) {
  std::lock_guard lock(mutex_);
  std::erase_if(open_, [](const std::weak_ptr<PlaySession>& open) { return open.expired(); });
  open_.push_back(play);
}

// The plays' locks are taken after the list's is released: a play holds its
// own while it unlists itself.
void PlaySessions::sendParts() {
  std::vector<std::shared_ptr<PlaySession>> plays;
  {
    std::lock_guard lock(mutex_);
    for (const std::weak_ptr<PlaySession>& open : open_) {
      if (std::shared_ptr<PlaySession> play = open.lock()) plays.push_back(std::move(play));
    }
  }
  for (const std::shared_ptr<PlaySession>& play : plays) play->sendPart();
}

// Each listed play with a readable file is sent under its own header; the
// others, and files that do not hold their play, are removed.
std::vector<PlaySessions::Leftover> PlaySessions::recoverLocked(QXLogCenter& center) {
  platform::Env& env = center.env();
  platform::FileSystem& files = env.files();
  listed_.clear();
  std::vector<Leftover> leftovers;
  std::optional<std::string> bytes = files.read(env.documentsPath(kIndexFile));
  if (!bytes || bytes->empty() || bytes->size() > format::kMaxPlayFileBytes) return leftovers;
  std::optional<Value> index = serial::parsePropertyList(*bytes);
  if (!index || !index->isArray()) return leftovers;
  for (const Value& entry : *index->asArray()) {
    const std::string* id = entry.asString();
    if (id == nullptr || !isPlayId(*id)) continue;
    if (leftovers.size() >= kMaxRecovered) break;
    const std::string path = env.documentsPath(PlaySession::fileName(*id));
    std::optional<std::string> contents = files.read(path);
    std::optional<format::RecoveredPlay> play =
        contents ? format::recoveredPlay(*contents, *id) : std::nullopt;
    if (!play) {
      files.remove(path);
      continue;
    }
    listed_.push_back(*id);
    leftovers.push_back(Leftover{*id, std::move(*play)});
  }
  return leftovers;
}

void PlaySessions::writeIndexLocked(QXLogCenter& center) {
  platform::Env& env = center.env();
  const std::string path = env.documentsPath(kIndexFile);
  if (listed_.empty()) {
    env.files().remove(path);
    return;
  }
  Array ids(listed_.begin(), listed_.end());
  env.files().replaceAtomically(path, serial::toXmlPropertyList(Value(std::move(ids))));
}

void storePlayPart(Dictionary record, std::string playId, bool last) {
  if (deferUntilReady(storePlayPart, record, playId, last)) return;
  QXLogCenter& center = QXLogCenter::center();
  const Value* actions = record.find("p");
  if (actions != nullptr && actions->isArray() && !actions->asArray()->empty()) {
    center.storeActionLog(std::move(record));
  }
  if (!last) return;
  center.env().files().remove(center.env().documentsPath(PlaySession::fileName(playId)));
  PlaySessions::instance().closed(playId);
}

void postPlayReport(Dictionary report) {
  if (deferUntilReady(postPlayReport, report)) return;
  QXLogCenter& center = QXLogCenter::center();
  QXLogMessageFormat& format = center.format();
  center.pushLog(format.diagnosisOfCompleteInformation(Value(std::move(report))),
                 format.pushDiagnosisUrl(), true);
}

}  // namespace qxlog::recording
