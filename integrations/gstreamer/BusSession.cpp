#include "integrations/gstreamer/BusSession.h"

#include <algorithm>

#include "integrations/gstreamer/PipelineProbe.h"

namespace qxlog::gst {
namespace {

// How often the position and the video's rendition are read while playing:
// the position before a seek is the last one read.
constexpr guint kSampleMillis = 200;
// How often the frames at the sink are checked while the play waits on them.
constexpr guint kFrameCheckMillis = 10;
// Position reads kept for the position before a flush: a few seconds' worth
// at the frame check's pace.
constexpr std::size_t kKeptReads = 512;

}  // namespace

BusSession::BusSession(GstElement* pipeline, PlayIdentity identity)
    : pipeline_(GST_ELEMENT(gst_object_ref(pipeline))),
      bus_(gst_element_get_bus(pipeline)),
      identity_(std::move(identity)) {
  gst_bus_add_signal_watch(bus_);
  handler_ = g_signal_connect(bus_, "message", G_CALLBACK(onMessage), this);
  sampler_ = g_timeout_source_new(kSampleMillis);
  g_source_set_callback(sampler_, onSample, this, nullptr);
  g_source_attach(sampler_, g_main_context_get_thread_default());
  if (requestedState() >= GST_STATE_PAUSED) begin();
}

GstState BusSession::requestedState() const {
  GstState state = GST_STATE_NULL;
  GstState pending = GST_STATE_VOID_PENDING;
  gst_element_get_state(pipeline_, &state, &pending, 0);
  return std::max(state, pending);
}

BusSession::~BusSession() {
  g_signal_handler_disconnect(bus_, handler_);
  gst_bus_remove_signal_watch(bus_);
  g_source_destroy(sampler_);
  g_source_unref(sampler_);
  if (frameCheck_ != nullptr) {
    g_source_destroy(frameCheck_);
    g_source_unref(frameCheck_);
  }
  // A play requested before the main context ran ends here, untold before.
  if (!play_ && requestedState() >= GST_STATE_PAUSED) begin();
  if (play_) play_->ended(position());
  gst_object_unref(bus_);
  gst_object_unref(pipeline_);
}

void BusSession::onMessage(GstBus* /*bus*/, GstMessage* message, gpointer self) {
  static_cast<BusSession*>(self)->handle(message);
}

gboolean BusSession::onSample(gpointer self) {
  static_cast<BusSession*>(self)->sample();
  return G_SOURCE_CONTINUE;
}

gboolean BusSession::onFrameCheck(gpointer self) {
  auto* session = static_cast<BusSession*>(self);
  if (session->checkFrames()) return G_SOURCE_CONTINUE;
  g_source_unref(session->frameCheck_);
  session->frameCheck_ = nullptr;
  return G_SOURCE_REMOVE;
}

void BusSession::handle(GstMessage* message) {
  dispatch(message);
  checkFramesWhileAwaited();
}

void BusSession::dispatch(GstMessage* message) {
  switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_STATE_CHANGED:
      if (GST_MESSAGE_SRC(message) == GST_OBJECT(pipeline_)) stateChanged(message);
      return;
    case GST_MESSAGE_RESET_TIME:
      // A flush that resets the running time: the lost preroll was a seek.
      if (play_ && lostPreroll_) play_->seekBegan(*lostPreroll_);
      return;
    case GST_MESSAGE_ASYNC_DONE: {
      lostPreroll_.reset();
      // A seek ends where its first frame stands: by the time this message
      // is handled, playing may have moved the position on.
      std::optional<int64_t> resumed;
      if (frames_) {
        frames_->takeFlushTime();  // that flush is over
        resumed = frames_->takeResumePosition();
      }
      if (play_)
        play_->prerolled(requestedState() == GST_STATE_PLAYING, resumed.value_or(position()));
      sample();
      return;
    }
    case GST_MESSAGE_BUFFERING: {
      gint percent = 100;
      gst_message_parse_buffering(message, &percent);
      if (play_) play_->bufferingPercent(percent, position());
      return;
    }
    case GST_MESSAGE_EOS:
      if (play_) play_->ended(position());
      return;
    case GST_MESSAGE_ELEMENT:
      if (auto bitrate = adaptiveBitrate(message)) bitrate_ = *bitrate;
      return;
    case GST_MESSAGE_ERROR: {
      GError* error = nullptr;
      gst_message_parse_error(message, &error, nullptr);
      if (play_) play_->failed(error != nullptr ? error->message : "", position());
      g_clear_error(&error);
      return;
    }
    default:
      return;
  }
}

// The pipeline's own state changes: a play begins when it leaves READY
// upwards, ends when it returns to READY; PLAYING runs it. A change with a
// pending state once started is a lost preroll, which a reset of the running
// time shows to be a flushing seek.
void BusSession::stateChanged(GstMessage* message) {
  GstState old = GST_STATE_NULL, state = GST_STATE_NULL, pending = GST_STATE_VOID_PENDING;
  gst_message_parse_state_changed(message, &old, &state, &pending);
  const bool leavesReady = (state == GST_STATE_READY && pending >= GST_STATE_PAUSED) ||
                           (old == GST_STATE_READY && state == GST_STATE_PAUSED);
  if (leavesReady && (!play_ || play_->ended())) begin();
  if (!play_) return;
  watchFrames();
  if (state <= GST_STATE_READY && old >= GST_STATE_PAUSED) {
    play_->ended(position());
  } else if (state == GST_STATE_PLAYING && pending == GST_STATE_VOID_PENDING) {
    sample();  // the rendition of the first frame, before it is shown
    // No frame comes to the video sink of a play without video.
    if (frames_) play_->watchFrames(!audioOnly(pipeline_));
    play_->running(position(),
                   !frames_ || (frames_->frames() > 0 && frames_->firstFrameDue(pipeline_)));
  } else if (old == GST_STATE_PLAYING && state == GST_STATE_PAUSED &&
             pending == GST_STATE_VOID_PENDING) {
    play_->pausedByHost(position());
  } else if (state == GST_STATE_PAUSED && old >= GST_STATE_PAUSED &&
             pending != GST_STATE_VOID_PENDING && play_->started()) {
    if (!lostPreroll_) lostPreroll_ = positionBeforeFlush();
  }
}

void BusSession::sample() {
  if (!play_ || play_->ended()) return;
  position();
  play_->rendition(videoHeight(pipeline_), bitrate_);
}

void BusSession::begin() {
  lastPosition_ = 0;
  reads_.clear();
  bitrate_ = 0;
  play_.reset();  // an earlier play ended; its handle goes
  play_ = std::make_unique<PlayTracker>(identity_, playedUri(pipeline_));
  frames_.reset();  // the host may have set another video sink since
  watchFrames();
}

void BusSession::watchFrames() {
  if (frames_ || !play_) return;
  frames_ = FrameWatch::find(pipeline_);
  if (!frames_) return;
  framesSeen_ = 0;
  play_->watchFrames(true);
}

void BusSession::checkFramesWhileAwaited() {
  if (frameCheck_ != nullptr || !play_ || !play_->awaitsFrames()) return;
  frameCheck_ = g_timeout_source_new(kFrameCheckMillis);
  g_source_set_callback(frameCheck_, onFrameCheck, this, nullptr);
  g_source_attach(frameCheck_, g_source_get_context(sampler_));
}

// Frames count as shown only while the pipeline is PLAYING and the clock
// reached the frame's time: a frame that arrives while paused, or early,
// waits at the sink.
bool BusSession::checkFrames() {
  if (!play_ || !frames_ || !play_->awaitsFrames()) return false;
  const uint64_t frames = frames_->frames();
  if (frames == framesSeen_) {
    if (frames_->starved()) play_->sinkStarved(position());
    return play_->awaitsFrames();
  }
  GstState state = GST_STATE_NULL;
  gst_element_get_state(pipeline_, &state, nullptr, 0);
  if (state != GST_STATE_PLAYING || !frames_->firstFrameDue(pipeline_)) return true;
  framesSeen_ = frames;
  frames_->restart();
  sample();  // the rendition of the first frame, before it is shown
  play_->framesFlow(position());
  return play_->awaitsFrames();
}

int64_t BusSession::position() {
  if (auto position = mediaPosition(pipeline_)) {
    lastPosition_ = *position;
    reads_.emplace_back(FrameWatch::steadyNanos(), *position);
    if (reads_.size() > kKeptReads) reads_.pop_front();
  }
  return lastPosition_;
}

int64_t BusSession::positionBeforeFlush() {
  const int64_t flushedAt = frames_ ? frames_->takeFlushTime() : 0;
  if (flushedAt == 0) return lastPosition_;
  for (auto read = reads_.rbegin(); read != reads_.rend(); ++read) {
    if (read->first < flushedAt) return read->second;
  }
  return lastPosition_;
}

}  // namespace qxlog::gst
