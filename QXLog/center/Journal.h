// The at-least-once delivery's pending action records: an append-only journal
// in the Documents directory. Each record is one frame in a segment file
// ("QXLogJournal.0000000001", ...):
//
//   "QXJ1"  length (u32 LE)  CRC-32 of the payload (u32 LE)  payload
//
// where the payload is the record's JSON. "QXLogJournal.position" holds how
// far records are settled (confirmed or dropped); a segment is removed once
// everything in it is settled. A store costs one write(2) of one frame,
// whatever the backlog; the records not yet settled are also kept in memory,
// in order, for cutting batches.
//
// Reading back, a frame that is torn, damaged or not a JSON dictionary is
// skipped up to the next frame that reads whole; the damage is counted and
// padded over in place, so that it is counted once. A
// torn tail of the last segment is cut off, so that appends follow whole
// frames. Reads are bounded: a frame by kMaxFrameBytes, a segment by
// kMaxSegmentReadBytes, the segments by kMaxSegments.
//
// Not synchronised: the owner calls it under its lock.
#ifndef QXLOG_CENTER_JOURNAL_H_
#define QXLOG_CENTER_JOURNAL_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "QXLog/platform/AppendFile.h"
#include "QXLog/platform/DurableFlush.h"
#include "QXLog/platform/Env.h"

namespace qxlog::center {

inline constexpr std::string_view kJournalPrefix = "QXLogJournal.";
inline constexpr std::string_view kJournalPositionFile = "QXLogJournal.position";
inline constexpr std::string_view kJournalInFlightFile = "QXLogJournal.inflight";

// Where a frame ends: the segment's number and the offset just past it.
struct JournalPosition {
  uint64_t segment = 0;
  uint64_t offset = 0;
  friend bool operator<=(const JournalPosition& a, const JournalPosition& b) {
    return a.segment < b.segment || (a.segment == b.segment && a.offset <= b.offset);
  }
  friend bool operator==(const JournalPosition& a, const JournalPosition& b) = default;
};

// The frame of one payload.
std::string journalFrame(std::string_view payload);

// Reads the frames of `bytes` from `offset` on. `record` gets each whole
// frame's payload and the offset past it; `damaged` gets each run of bytes
// that holds no whole frame, with whether it runs to the end. Returns the
// offset past the last whole frame.
struct FrameVisitor {
  std::function<void(std::string_view payload, uint64_t end)> record;
  std::function<void(uint64_t from, uint64_t to, bool atEnd)> damaged;
};
uint64_t readJournalFrames(std::string_view bytes, uint64_t offset, const FrameVisitor& visit);

class Journal {
 public:
  static constexpr std::size_t kMaxFrameBytes = 1 << 20;
  static constexpr uint64_t kSegmentBytes = 4 << 20;
  // A segment holding the settled position is full at this size: when
  // records are settled as they come, segments stay short and go soon.
  static constexpr uint64_t kSettledTailBytes = 256 << 10;
  static constexpr std::size_t kMaxSegmentReadBytes = 16 << 20;
  static constexpr std::size_t kMaxSegments = 4096;

  struct Entry {
    // The record's JSON, shared so that a batch can be cut without holding
    // the owner's lock for the copy.
    std::shared_ptr<const std::string> payload;
    JournalPosition end;
  };

  // `flush`, when given, makes appended segments durable off the caller's
  // thread.
  Journal(const platform::Env& env, std::shared_ptr<platform::DurableFlush> flush);

  // Reads what is on disk, once; later calls do nothing. Returns how many
  // damaged runs were skipped, each with one line for the console in notes().
  std::size_t open();
  // Whether open() cut a torn frame off the end of the newest segment: the
  // one append a crash interrupted (counted among the damaged runs).
  bool cutTornTail() const { return cutTornTail_; }
  // Console lines about damage, taken out; the owner writes them once it
  // holds no lock.
  std::vector<std::string> takeNotes() { return std::move(notes_); }
  // Whether any journal file is in the Documents directory.
  static bool presentIn(const platform::Env& env);

  // Appends one record's JSON; false when it could not be written (it is
  // then not pending either).
  bool append(std::string_view payload);
  // The records not yet settled, oldest first.
  const std::deque<Entry>& pending() const { return pending_; }
  // Settles everything up to `end`: it leaves memory, the position is
  // rewritten, and segments wholly settled are removed.
  void settleThrough(JournalPosition end);
  // Removes every journal file and forgets the records.
  void removeAll();

 private:
  std::string segmentPath(uint64_t number) const;
  void readSegment(uint64_t number, uint64_t from, bool last, std::size_t& damaged);
  bool openTail();

  const platform::Env& env_;
  std::shared_ptr<platform::DurableFlush> flush_;
  bool opened_ = false;
  bool cutTornTail_ = false;
  JournalPosition settled_;
  std::map<uint64_t, bool> segments_;  // number -> readable
  std::deque<Entry> pending_;
  std::unique_ptr<platform::AppendFile> tail_;
  uint64_t tailNumber_ = 0;
  std::vector<std::string> notes_;
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_JOURNAL_H_
