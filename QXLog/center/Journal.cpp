#include "QXLog/center/Journal.h"

#include <zlib.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <vector>

#include "QXLog/serial/Json.h"

namespace qxlog::center {
namespace {

constexpr std::string_view kMagic = "QXJ1";
// A frame that holds no record: damage already counted, overwritten in place
// so that it is neither counted again nor moves the frames after it.
constexpr std::string_view kPaddingMagic = "QXJ0";
constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kNumberDigits = 10;

void putU32(std::string& out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out += static_cast<char>((value >> (8 * i)) & 0xff);
}

uint32_t getU32(std::string_view bytes, std::size_t at) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) {
    value |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
  }
  return value;
}

uint32_t crcOf(std::string_view bytes) {
  uLong crc = crc32(0L, Z_NULL, 0);
  // The payload is bounded by the frame size, far below zlib's 32-bit count.
  return static_cast<uint32_t>(
      crc32(crc, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

// The length of a whole frame at `at`, or 0 when none starts there.
std::size_t wholeFrameAt(std::string_view bytes, std::size_t at) {
  if (bytes.size() - at < kHeaderBytes) return 0;
  if (bytes.substr(at, 4) != kMagic && bytes.substr(at, 4) != kPaddingMagic) return 0;
  std::size_t length = getU32(bytes, at + 4);
  if (length > Journal::kMaxFrameBytes || bytes.size() - at - kHeaderBytes < length) return 0;
  if (crcOf(bytes.substr(at + kHeaderBytes, length)) != getU32(bytes, at + 8)) return 0;
  return kHeaderBytes + length;
}

std::string numbered(uint64_t number) {
  char text[32];
  std::snprintf(text, sizeof text, "%010" PRIu64, number);
  return text;
}

// The segment number of a journal file's name, or 0 for other journal files.
uint64_t segmentNumber(std::string_view name) {
  std::string_view digits = name.substr(kJournalPrefix.size());
  if (digits.size() != kNumberDigits) return 0;
  uint64_t number = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return 0;
    number = number * 10 + static_cast<uint64_t>(c - '0');
  }
  return number;
}

bool isRecord(std::string_view payload) {
  std::optional<Value> value = serial::parseJson(payload);
  return value && value->isDictionary();
}

std::string framed(std::string_view magic, std::string_view payload) {
  std::string frame;
  frame.reserve(kHeaderBytes + payload.size());
  frame += magic;
  putU32(frame, static_cast<uint32_t>(payload.size()));
  putU32(frame, crcOf(payload));
  frame += payload;
  return frame;
}

}  // namespace

std::string journalFrame(std::string_view payload) {
  return framed(kMagic, payload);
}

uint64_t readJournalFrames(std::string_view bytes, uint64_t offset, const FrameVisitor& visit) {
  std::size_t at = static_cast<std::size_t>(std::min<uint64_t>(offset, bytes.size()));
  std::size_t goodEnd = at;
  while (at < bytes.size()) {
    std::size_t length = wholeFrameAt(bytes, at);
    if (length != 0) {
      bool record = bytes.substr(at, 4) == kMagic;
      at += length;
      goodEnd = at;
      if (record) visit.record(bytes.substr(at - length + kHeaderBytes, length - kHeaderBytes), at);
      continue;
    }
    // Damage: look for the next frame that reads whole.
    std::size_t from = at;
    std::size_t next = bytes.find(kMagic, at + 1);
    while (next != std::string_view::npos && wholeFrameAt(bytes, next) == 0) {
      next = bytes.find(kMagic, next + 1);
    }
    at = next == std::string_view::npos ? bytes.size() : next;
    visit.damaged(from, at, at == bytes.size());
  }
  return goodEnd;
}

Journal::Journal(const platform::Env& env, std::shared_ptr<platform::DurableFlush> flush)
    : env_(env), flush_(std::move(flush)) {}

std::string Journal::segmentPath(uint64_t number) const {
  return env_.documentsPath(std::string(kJournalPrefix) + numbered(number));
}

bool Journal::presentIn(const platform::Env& env) {
  return !platform::listDirectory(env.documentsDirectory(), kJournalPrefix, 1).empty();
}

std::size_t Journal::open() {
  if (opened_) return 0;
  opened_ = true;
  std::size_t damaged = 0;
  // The settled position; a missing or damaged one reads as the start.
  if (auto read = platform::readRegularFile(env_.documentsPath(kJournalPositionFile), 64)) {
    unsigned long long segment = 0;
    unsigned long long offset = 0;
    char end = 0;
    if (std::sscanf(read->bytes.c_str(), "%llu %llu%c", &segment, &offset, &end) == 3 &&
        end == '\n') {
      settled_ = {segment, offset};
    }
  }
  std::vector<uint64_t> numbers;
  for (const std::string& name :
       platform::listDirectory(env_.documentsDirectory(), kJournalPrefix, kMaxSegments + 8)) {
    if (uint64_t number = segmentNumber(name); number != 0) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end());
  if (numbers.size() > kMaxSegments) {
    notes_.push_back("QXLog: journal has more than " + std::to_string(kMaxSegments) +
                     " segments, the newest are skipped");
    numbers.resize(kMaxSegments);
    ++damaged;
  }
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    uint64_t number = numbers[i];
    if (number < settled_.segment) {
      env_.files().remove(segmentPath(number));
      continue;
    }
    if (i > 0 && numbers[i - 1] >= settled_.segment && number != numbers[i - 1] + 1) {
      notes_.push_back("QXLog: journal segments missing before " + numbered(number));
      ++damaged;
    }
    readSegment(number, number == settled_.segment ? settled_.offset : 0, i + 1 == numbers.size(),
                damaged);
  }
  return damaged;
}

void Journal::readSegment(uint64_t number, uint64_t from, bool last, std::size_t& damaged) {
  std::string name = std::string(kJournalPrefix) + numbered(number);
  auto read = platform::readRegularFile(env_.documentsPath(name), kMaxSegmentReadBytes);
  segments_[number] = read.has_value();
  if (!read) {
    notes_.push_back("QXLog: journal segment " + name + " is not a readable file, skipped");
    ++damaged;
    return;
  }
  if (read->truncated) {
    notes_.push_back("QXLog: journal segment " + name + " is too long, its end is skipped");
    ++damaged;
  }
  std::string_view bytes = read->bytes;
  uint64_t cut = 0;
  bool tornTail = false;
  std::vector<std::pair<uint64_t, std::string>> repairs;
  FrameVisitor visit;
  visit.record = [&](std::string_view payload, uint64_t end) {
    if (!isRecord(payload)) {
      notes_.push_back("QXLog: journal " + name + " holds a frame that is no record at " +
                       std::to_string(end - payload.size()) + ", skipped");
      ++damaged;
      repairs.emplace_back(end - payload.size() - kHeaderBytes, std::string(kPaddingMagic));
      return;
    }
    pending_.push_back({std::make_shared<const std::string>(payload), {number, end}});
  };
  visit.damaged = [&](uint64_t at, uint64_t to, bool atEnd) {
    notes_.push_back("QXLog: journal " + name + " damaged at " + std::to_string(at) + ", skipped " +
                     std::to_string(to - at) + " bytes");
    ++damaged;
    if (atEnd) {
      tornTail = true;
      cut = at;
    } else if (to - at >= kHeaderBytes) {
      repairs.emplace_back(at, framed(kPaddingMagic, std::string(to - at - kHeaderBytes, '\0')));
    }
  };
  readJournalFrames(bytes, from, visit);
  for (const auto& [at, padding] : repairs) {
    platform::overwriteRegularFile(env_.documentsPath(name), at, padding);
  }
  // Appends go after the last whole frame, never after a torn one.
  if (last && tornTail && !read->truncated) {
    if (auto file = platform::AppendFile::open(env_.documentsPath(name))) file->truncate(cut);
    cutTornTail_ = true;
  }
}

bool Journal::openTail() {
  // While records are settled about as fast as they come (all confirmed, or
  // all refused), segments are kept short, so that each goes soon.
  const uint64_t full = settled_.segment == tailNumber_ ? kSettledTailBytes : kSegmentBytes;
  if (tail_ && tail_->size() < full) return true;
  // New segments are numbered past the settled position too, so that a
  // journal whose segments went missing still reads back what follows.
  uint64_t newest = segments_.empty() ? 0 : segments_.rbegin()->first;
  bool reuse = !tail_ && newest != 0 && segments_.rbegin()->second;
  uint64_t number = reuse ? newest : std::max(newest, settled_.segment) + 1;
  auto file = platform::AppendFile::open(segmentPath(number));
  if (!file) return false;
  if (reuse && file->size() >= kSegmentBytes) {
    file = platform::AppendFile::open(segmentPath(++number));
    if (!file) return false;
  }
  tail_ = std::move(file);
  tailNumber_ = number;
  segments_[number] = true;
  return true;
}

bool Journal::append(std::string_view payload) {
  if (payload.size() > kMaxFrameBytes) return false;
  open();
  if (!openTail()) return false;
  std::string frame = journalFrame(payload);
  if (!tail_->append(frame)) return false;
  pending_.push_back({std::make_shared<const std::string>(payload), {tailNumber_, tail_->size()}});
  if (flush_) flush_->written(tail_->path());
  return true;
}

void Journal::settleThrough(JournalPosition end) {
  while (!pending_.empty() && pending_.front().end <= end) pending_.pop_front();
  if (end <= settled_) return;
  settled_ = end;
  env_.files().replaceAtomically(
      env_.documentsPath(kJournalPositionFile),
      std::to_string(end.segment) + " " + std::to_string(end.offset) + "\n");
  // Wholly settled segments go: those before the oldest pending record's,
  // the one being appended to excepted.
  uint64_t firstKept =
      pending_.empty() ? std::max(end.segment, tailNumber_) : pending_.front().end.segment;
  while (!segments_.empty() && segments_.begin()->first < firstKept &&
         segments_.begin()->first != tailNumber_) {
    env_.files().remove(segmentPath(segments_.begin()->first));
    segments_.erase(segments_.begin());
  }
}

void Journal::removeAll() {
  open();
  tail_.reset();
  for (const std::string& name :
       platform::listDirectory(env_.documentsDirectory(), kJournalPrefix, kMaxSegments + 8)) {
    env_.files().remove(env_.documentsPath(name));
  }
  segments_.clear();
  pending_.clear();
  settled_ = {};
  tailNumber_ = 0;
}

}  // namespace qxlog::center
