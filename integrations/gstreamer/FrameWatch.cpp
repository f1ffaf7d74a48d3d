#include "integrations/gstreamer/FrameWatch.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

namespace qxlog::gst {
namespace {

// The probe's data is handed to the streaming threads through GStreamer's
// locks (GLib's futex mutexes), which ThreadSanitizer cannot see. Each side
// also passes through this counter: its creator and its freer acquire what
// the probe released, and the probe acquires what its creator released.
std::atomic<uint64_t> handoffs{0};

bool classSaysVideo(GstElement* element) {
  const char* klass = gst_element_get_metadata(element, GST_ELEMENT_METADATA_KLASS);
  return klass != nullptr && std::strstr(klass, "Video") != nullptr;
}

bool capsSayVideo(GstPad* pad) {
  GstCaps* caps = gst_pad_get_current_caps(pad);
  if (caps == nullptr) return false;
  const bool video =
      gst_caps_get_size(caps) > 0 &&
      g_str_has_prefix(gst_structure_get_name(gst_caps_get_structure(caps, 0)), "video/");
  gst_caps_unref(caps);
  return video;
}

// The sink elements inside `bin`, at any depth, each with a reference.
std::vector<GstElement*> sinksOf(GstBin* bin) {
  std::vector<GstElement*> sinks;
  GstIterator* it = gst_bin_iterate_recurse(bin);
  GValue item = G_VALUE_INIT;
  bool done = false;
  while (!done) {
    switch (gst_iterator_next(it, &item)) {
      case GST_ITERATOR_OK: {
        auto* element = GST_ELEMENT(g_value_get_object(&item));
        if (!GST_IS_BIN(element) && GST_OBJECT_FLAG_IS_SET(element, GST_ELEMENT_FLAG_SINK)) {
          sinks.push_back(GST_ELEMENT(gst_object_ref(element)));
        }
        g_value_reset(&item);
        break;
      }
      case GST_ITERATOR_RESYNC:
        for (GstElement* sink : sinks) gst_object_unref(sink);
        sinks.clear();
        gst_iterator_resync(it);
        break;
      default:
        done = true;
        break;
    }
  }
  g_value_unset(&item);
  gst_iterator_free(it);
  return sinks;
}

// The video sink's "sink" pad, with a reference; nullptr when none is found.
GstPad* videoSinkPad(GstElement* pipeline) {
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(pipeline), "video-sink") != nullptr) {
    GstElement* sink = nullptr;
    g_object_get(pipeline, "video-sink", &sink, nullptr);
    if (sink == nullptr) return nullptr;
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    gst_object_unref(sink);
    return pad;
  }
  if (!GST_IS_BIN(pipeline)) return nullptr;
  std::vector<GstElement*> sinks = sinksOf(GST_BIN(pipeline));
  GstPad* found = nullptr;
  for (GstElement* sink : sinks) {
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    if (pad == nullptr) continue;
    if (found == nullptr && (classSaysVideo(sink) || capsSayVideo(pad) || sinks.size() == 1)) {
      found = pad;
    } else {
      gst_object_unref(pad);
    }
  }
  for (GstElement* sink : sinks) gst_object_unref(sink);
  return found;
}

// `pts` in the time segment the pad holds, as `convert` gives it (stream or
// running time); GST_CLOCK_TIME_NONE when unknown.
guint64 inSegment(GstPad* pad, GstClockTime pts,
                  guint64 (*convert)(const GstSegment*, GstFormat, guint64)) {
  if (!GST_CLOCK_TIME_IS_VALID(pts)) return GST_CLOCK_TIME_NONE;
  GstEvent* event = gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0);
  if (event == nullptr) return GST_CLOCK_TIME_NONE;
  const GstSegment* segment = nullptr;
  gst_event_parse_segment(event, &segment);
  const guint64 time = segment->format == GST_FORMAT_TIME ? convert(segment, GST_FORMAT_TIME, pts)
                                                          : GST_CLOCK_TIME_NONE;
  gst_event_unref(event);
  return time;
}

// The stream time of `pts` in milliseconds; -1 when unknown.
int64_t streamMillis(GstPad* pad, GstClockTime pts) {
  const guint64 stream = inSegment(pad, pts, gst_segment_to_stream_time);
  return stream == GST_CLOCK_TIME_NONE ? -1 : static_cast<int64_t>(stream / GST_MSECOND);
}

}  // namespace

std::unique_ptr<FrameWatch> FrameWatch::find(GstElement* pipeline) {
  GstPad* pad = videoSinkPad(pipeline);
  return pad != nullptr ? std::unique_ptr<FrameWatch>(new FrameWatch(pad)) : nullptr;
}

int64_t FrameWatch::steadyNanos() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

FrameWatch::FrameWatch(GstPad* pad) : pad_(pad), counts_(std::make_shared<Counts>()) {
  probe_ = addProbe(
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
      onBuffer);
  // Flush events travel out of band: only a probe that asks for them sees them.
  flushProbe_ = addProbe(static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM |
                                                      GST_PAD_PROBE_TYPE_EVENT_FLUSH),
                         onFlush);
}

gulong FrameWatch::addProbe(GstPadProbeType type, GstPadProbeCallback callback) {
  auto* data = new std::shared_ptr<Counts>(counts_);
  handoffs.fetch_add(1, std::memory_order_release);
  return gst_pad_add_probe(pad_, type, callback, data, [](gpointer counts) {
    handoffs.load(std::memory_order_acquire);
    delete static_cast<std::shared_ptr<Counts>*>(counts);
  });
}

FrameWatch::~FrameWatch() {
  gst_pad_remove_probe(pad_, flushProbe_);
  gst_pad_remove_probe(pad_, probe_);
  gst_object_unref(pad_);
}

// Runs on the thread that sends the event: for a flushing seek, the seeking
// thread, inside its call. It only notes the time.
GstPadProbeReturn FrameWatch::onFlush(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer data) {
  if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) != GST_EVENT_FLUSH_START) {
    return GST_PAD_PROBE_OK;
  }
  handoffs.load(std::memory_order_acquire);
  Counts& counts = **static_cast<std::shared_ptr<Counts>*>(data);
  counts.flushedAt.store(steadyNanos(), std::memory_order_relaxed);
  counts.resumedAt.store(-1, std::memory_order_relaxed);
  counts.flushed.store(true, std::memory_order_relaxed);
  handoffs.fetch_add(1, std::memory_order_release);
  return GST_PAD_PROBE_OK;
}

// Runs on the streaming thread that pushes to the sink, before the sink waits
// for the frame's time; it only counts, and never calls into the library.
GstPadProbeReturn FrameWatch::onBuffer(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  handoffs.load(std::memory_order_acquire);
  Counts& counts = **static_cast<std::shared_ptr<Counts>*>(data);
  GstBuffer* buffer = nullptr;
  if ((info->type & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
    buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  } else if (gst_buffer_list_length(GST_PAD_PROBE_INFO_BUFFER_LIST(info)) > 0) {
    buffer = gst_buffer_list_get(GST_PAD_PROBE_INFO_BUFFER_LIST(info), 0);
  }
  const bool timed = buffer != nullptr && GST_BUFFER_DURATION_IS_VALID(buffer);
  counts.durationNanos.store(timed ? static_cast<int64_t>(GST_BUFFER_DURATION(buffer)) : 0,
                             std::memory_order_relaxed);
  uint64_t unset = GST_CLOCK_TIME_NONE;
  counts.firstPts.compare_exchange_strong(
      unset, buffer != nullptr ? GST_BUFFER_PTS(buffer) : GST_CLOCK_TIME_NONE,
      std::memory_order_relaxed);
  if (buffer != nullptr && counts.flushed.exchange(false, std::memory_order_relaxed)) {
    counts.resumedAt.store(streamMillis(pad, GST_BUFFER_PTS(buffer)), std::memory_order_relaxed);
  }
  counts.lastNanos.store(steadyNanos(), std::memory_order_relaxed);
  counts.frames.fetch_add(1, std::memory_order_release);
  handoffs.fetch_add(1, std::memory_order_release);
  return GST_PAD_PROBE_OK;
}

bool FrameWatch::starved() const {
  const uint64_t frames = counts_->frames.load(std::memory_order_acquire);
  if (frames == 0) return false;
  const int64_t duration = counts_->durationNanos.load(std::memory_order_relaxed);
  const int64_t allowed = std::max<int64_t>(50 * GST_MSECOND, 2 * duration);
  return steadyNanos() - counts_->lastNanos.load(std::memory_order_relaxed) > allowed;
}

bool FrameWatch::firstFrameDue(GstElement* pipeline) const {
  const uint64_t pts = counts_->firstPts.load(std::memory_order_relaxed);
  const guint64 running = inSegment(pad_, pts, gst_segment_to_running_time);
  GstClock* clock = gst_element_get_clock(pipeline);
  if (running == GST_CLOCK_TIME_NONE || clock == nullptr) {
    if (clock != nullptr) gst_object_unref(clock);
    return true;
  }
  const GstClockTime now = gst_clock_get_time(clock);
  gst_object_unref(clock);
  return now >= gst_element_get_base_time(pipeline) + running;
}

}  // namespace qxlog::gst
