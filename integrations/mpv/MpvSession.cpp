#include "integrations/mpv/MpvSession.h"

#include <cstring>
#include <optional>
#include <string>

namespace qxlog::mpv {

namespace {

// Reply ids of the observed properties.
enum Observed : uint64_t {
  kPause = 1,
  kPausedForCache,
  kSeeking,
  kCoreIdle,
  kPlaybackTime,
  kVideoHeight,
  kVideoBitrate,
  kCacheState,
  kEofReached,
};

struct Observation {
  Observed id;
  const char* name;
  mpv_format format;
};

// What the measures need. The cache state, core-idle and eof-reached are
// observed for the session's own view of the core; the play is driven by the
// flags, the position, the video's height and bitrate, and the events.
constexpr Observation kObservations[] = {
    {kPause, "pause", MPV_FORMAT_FLAG},
    {kPausedForCache, "paused-for-cache", MPV_FORMAT_FLAG},
    {kSeeking, "seeking", MPV_FORMAT_FLAG},
    {kCoreIdle, "core-idle", MPV_FORMAT_FLAG},
    {kPlaybackTime, "playback-time", MPV_FORMAT_DOUBLE},
    {kVideoHeight, "video-params/h", MPV_FORMAT_INT64},
    {kVideoBitrate, "video-bitrate", MPV_FORMAT_DOUBLE},
    {kCacheState, "demuxer-cache-state", MPV_FORMAT_NONE},
    {kEofReached, "eof-reached", MPV_FORMAT_FLAG},
};

std::string pathOf(mpv_handle* client) {
  char* path = mpv_get_property_string(client, "path");
  std::string text = path != nullptr ? path : "";
  mpv_free(path);
  return text;
}

std::optional<std::string> failureOf(const mpv_event_end_file& end) {
  if (end.reason != MPV_END_FILE_REASON_ERROR) return std::nullopt;
  return std::string(mpv_error_string(end.error));
}

}  // namespace

MpvSession::MpvSession(mpv_handle* client, PlayIdentity identity)
    : driver_(std::move(identity)), client_(client) {
  for (const Observation& o : kObservations) {
    mpv_observe_property(client, o.id, o.name, o.format);
  }
  // A file already playing when the session attaches is a play from now on.
  int idle = 1;
  if (mpv_get_property(client, "idle-active", MPV_FORMAT_FLAG, &idle) >= 0 && idle == 0) {
    driver_.fileStarted(pathOf(client));
  }
  thread_ = std::thread([this] { run(); });
}

MpvSession::~MpvSession() {
  // The handle is only destroyed by the thread at the core's shutdown, which
  // a detach does not overlap (see QXLogMpvDetach).
  mpv_handle* client = client_.load();
  if (client != nullptr) {
    // A round trip through the core: whatever it told its clients before (a
    // file's end the host has just seen) is then in this handle's queue too,
    // for the thread to handle before it stops.
    int idle = 0;
    mpv_get_property(client, "idle-active", MPV_FORMAT_FLAG, &idle);
  }
  stopping_.store(true);
  if (client != nullptr) mpv_wakeup(client);
  thread_.join();
  driver_.fileEnded(std::nullopt);
  releaseClient();
}

void MpvSession::run() {
  for (;;) {
    mpv_handle* client = client_.load();
    if (client == nullptr) return;
    const bool stopping = stopping_.load();
    // Detaching first handles what the core has already told the handle,
    // without waiting for more; the detach's wakeup ends a wait under way.
    const mpv_event* event = mpv_wait_event(client, stopping ? 0 : -1);
    if (stopping && event->event_id == MPV_EVENT_NONE) return;
    if (!handle(*event)) return;
  }
}

bool MpvSession::handle(const mpv_event& event) {
  mpv_handle* client = client_.load();
  switch (event.event_id) {
    case MPV_EVENT_START_FILE:
      driver_.fileStarted(pathOf(client));
      break;
    case MPV_EVENT_END_FILE:
      driver_.fileEnded(failureOf(*static_cast<const mpv_event_end_file*>(event.data)));
      break;
    case MPV_EVENT_PLAYBACK_RESTART:
      driver_.playbackRestarted();
      break;
    case MPV_EVENT_SEEK:
      driver_.seekStarted();
      break;
    case MPV_EVENT_PROPERTY_CHANGE:
      propertyChanged(*static_cast<const mpv_event_property*>(event.data));
      break;
    case MPV_EVENT_SHUTDOWN:
      // The core is going away and waits for every handle: end the play
      // and let go of the handle now.
      driver_.fileEnded(std::nullopt);
      releaseClient();
      return false;
    default:
      break;
  }
  return true;
}

void MpvSession::propertyChanged(const mpv_event_property& property) {
  if (property.format == MPV_FORMAT_NONE || property.data == nullptr) {
    // The property became unavailable: no video, or no file.
    if (std::strcmp(property.name, "paused-for-cache") == 0) driver_.setPausedForCache(false);
    return;
  }
  const auto flag = [&] { return *static_cast<const int*>(property.data) != 0; };
  const std::string_view name = property.name;
  if (name == "pause") {
    driver_.setPaused(flag());
  } else if (name == "paused-for-cache") {
    driver_.setPausedForCache(flag());
  } else if (name == "playback-time") {
    driver_.setPosition(*static_cast<const double*>(property.data));
  } else if (name == "video-params/h") {
    driver_.setVideoHeight(*static_cast<const int64_t*>(property.data));
  } else if (name == "video-bitrate") {
    driver_.setVideoBitrate(*static_cast<const double*>(property.data));
  }
}

void MpvSession::releaseClient() {
  mpv_handle* client = client_.exchange(nullptr);
  if (client != nullptr) mpv_destroy(client);
}

}  // namespace qxlog::mpv
