// The preview collector's encoding pipeline: how it is built, fed and ended.
#include <gst/app/gstappsrc.h>

#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "Tavi/EventCollect/PreviewCollect.h"
#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::PipelineCollect {
namespace {

using GstUtil::GstRef;
using Milliseconds = std::chrono::milliseconds;

/// The appsrcs by camera: the numbers cross over, as they do in every name.
constexpr const char* SourceNames[] = {"prev1", "prev0"};
/// An IDR frame every so many frames.
constexpr int KeyInterval = 6;
constexpr unsigned int TickMs = 20;
constexpr Milliseconds PullPeriod{10};
/// What start and end of the pipeline may take on top of its frames.
constexpr Milliseconds Margin{5000};

/// A main context of its own, the thread's default while it lives: the process's default one belongs to another thread.
class OwnContext {
 public:
  OwnContext() : m_context(g_main_context_new()) { g_main_context_push_thread_default(m_context); }
  ~OwnContext() {
    g_main_context_pop_thread_default(m_context);
    g_main_context_unref(m_context);
  }
  OwnContext(const OwnContext&) = delete;
  OwnContext& operator=(const OwnContext&) = delete;
  [[nodiscard]] GMainContext* Get() const { return m_context; }

 private:
  GMainContext* const m_context;
};

/// A path as a launch description takes it.
std::string Escape(const std::string& path) {
  std::string text;
  for (const char c : path) {
    if (std::strchr(" \t\"'\\!();,=", c) != nullptr) text += '\\';
    text += c;
  }
  return text;
}

/// The header's memory may be that of a buffer which another thread has given back to GLib: ThreadSanitizer does not
/// see GLib's locks, which order the two.
__attribute__((no_sanitize("thread"))) void SetTime(GstBuffer* buffer, GstClockTime begin, GstClockTime end) {
  GST_BUFFER_PTS(buffer) = begin;
  GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
  GST_BUFFER_DURATION(buffer) = end - begin;
}

/// A sink that is stopped before the end of its stream may drop what it has buffered.
void WriteAtOnce(GstBin* bin) {
  GstIterator* sinks = gst_bin_iterate_all_by_element_factory_name(bin, "filesink");
  const auto setMode = [](const GValue* sink, gpointer) {
    gst_util_set_object_arg(G_OBJECT(g_value_get_object(sink)), "buffer-mode", "unbuffered");
  };
  gst_iterator_foreach(sinks, setMode, nullptr);
  gst_iterator_free(sinks);
}

void LogError(const std::string& path, GstMessage* message) {
  GError* error = nullptr;
  gchar* debug = nullptr;
  gst_message_parse_error(message, &error, &debug);
  Log::Error(fmt::format("preview {}: {} ({})", path, error != nullptr ? error->message : "unknown error",
                         debug != nullptr ? debug : GST_OBJECT_NAME(GST_MESSAGE_SRC(message))));
  g_clear_error(&error);
  g_free(debug);
}

}  // namespace

std::string PreviewCollect::Describe() const {
  const std::string rate = std::to_string(m_fps) + "/1 ! ";
  std::string text;
  if (m_readers[0] && m_readers[1]) {
    text =
        "appsrc name=prev0 ! c.sink_0 "
        "appsrc name=prev1 ! c.sink_1 "
        "imxipucompositor name=c background-color=0x000000 "
        "sink_0::xpos=0 sink_0::ypos=0 sink_0::width=320 sink_0::height=176 "
        "sink_1::xpos=320 sink_1::ypos=0 sink_1::width=320 sink_1::height=176 "
        "start-time-selection=1 ! "
        "tee name=t !"
        "video/x-raw,width=640,height=176, framerate=";
  } else {
    text = m_readers[1] ? "appsrc name=prev0 ! " : "appsrc name=prev1 ! ";
    text += "tee name=t !video/x-raw,width=320,height=176, framerate=";
  }
  return text + rate + "imxvpuenc_h264 name=enc ! filesink location=" + Escape(m_path) +
         " async=0 t. ! identity name=oneJPEG ! jpegenc quality=10 ! filesink location=" + Escape(m_thumbnailPath);
}

bool PreviewCollect::Build() {
  GError* error = nullptr;
  m_pipeline = GstRef<GstElement>::Sink(gst_parse_launch(Describe().c_str(), &error));
  if (error != nullptr) {
    Log::Error(fmt::format("preview {}: its pipeline cannot be built: {}", m_path, error->message));
    g_error_free(error);
    return false;
  }
  GstBin* bin = GST_BIN(m_pipeline.Get());
  WriteAtOnce(bin);
  const auto encoder = GstRef<GstElement>::Adopt(gst_bin_get_by_name(bin, "enc"));
  g_object_set(encoder.Get(), "bitrate", m_bitrate, "idr-interval", KeyInterval, "gop-size", KeyInterval, nullptr);
  for (std::size_t camera = 0; camera < Cameras; ++camera) {
    if (!m_readers[camera]) continue;
    m_appSrcs[camera] = GstRef<GstElement>::Adopt(gst_bin_get_by_name(bin, SourceNames[camera]));
    ConfigureSource(camera);
  }
  const auto oneJpeg = GstRef<GstElement>::Adopt(gst_bin_get_by_name(bin, "oneJPEG"));
  m_pad = GstRef<GstPad>::Adopt(gst_element_get_static_pad(oneJpeg.Get(), "src"));
  m_probeId = gst_pad_add_probe(m_pad.Get(), GST_PAD_PROBE_TYPE_BUFFER, RunningCallback, this, nullptr);
  return true;
}

void PreviewCollect::ConfigureSource(std::size_t camera) {
  GstElement* source = m_appSrcs[camera].Get();
  GstCaps* caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT, 320,
                                      "height", G_TYPE_INT, 176, "framerate", GST_TYPE_FRACTION, m_fps, 1,
                                      "interlace-mode", G_TYPE_STRING, "progressive", nullptr);
  // A frame comes an interval after its place in the clip, and later when a camera has to be waited for: the compositor
  // must not go on without it meanwhile.
  const gint64 latencyNs = std::chrono::nanoseconds(2 * GetSilenceLimit() + Margin).count();
  g_object_set(source, "caps", caps, "stream-type", GST_APP_STREAM_TYPE_STREAM, "do-timestamp", TRUE, "is-live", TRUE,
               "format", GST_FORMAT_TIME, "min-latency", latencyNs, nullptr);
  gst_caps_unref(caps);
  g_signal_connect(source, "need-data", G_CALLBACK(NeedDataPreview), this);
}

void PreviewCollect::RunPipeline() {
  const OwnContext context;
  if (Build()) RunLoop(context.Get());
  TearDown();
}

void PreviewCollect::RunLoop(GMainContext* context) {
  m_deadline = std::chrono::steady_clock::now() + m_frameCount * GetInterval() + 2 * GetSilenceLimit() + Margin;
  {
    const std::lock_guard lock(m_mutex);
    m_loop = g_main_loop_new(context, FALSE);
    m_ending = false;
  }
  const auto bus = GstRef<GstBus>::Adopt(gst_element_get_bus(m_pipeline.Get()));
  gst_bus_add_watch(bus.Get(), OnBusMessage, this);
  GSource* tick = g_timeout_source_new(TickMs);
  g_source_set_callback(tick, OnTick, this, nullptr);
  g_source_attach(tick, context);
  if (gst_element_set_state(m_pipeline.Get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE) {
    g_main_loop_run(m_loop);
  } else if (GstMessage* message = gst_bus_pop_filtered(bus.Get(), GST_MESSAGE_ERROR)) {
    LogError(m_path, message);
    gst_message_unref(message);
  }
  g_source_destroy(tick);
  g_source_unref(tick);
  gst_bus_remove_watch(bus.Get());
}

/// Setting the pipeline to NULL closes the files; it waits for the streaming threads, which m_ending wakes.
void PreviewCollect::TearDown() {
  Stopping();
  if (m_probeId != 0) gst_pad_remove_probe(m_pad.Get(), std::exchange(m_probeId, 0));
  if (m_pipeline) gst_element_set_state(m_pipeline.Get(), GST_STATE_NULL);
  m_pad.Reset();
  for (auto& source : m_appSrcs) source.Reset();
  m_pipeline.Reset();
  const std::lock_guard lock(m_mutex);
  for (auto& reader : m_readers) reader.reset();
  if (m_loop != nullptr) g_main_loop_unref(std::exchange(m_loop, nullptr));
}

/// Also called by whoever cancels.
void PreviewCollect::Stopping() {
  const std::lock_guard lock(m_mutex);
  m_ending = true;
  m_changed.notify_all();
  if (m_loop != nullptr) g_main_loop_quit(m_loop);
}

gboolean PreviewCollect::OnBusMessage(GstBus*, GstMessage* message, gpointer self) noexcept {
  auto& collect = *static_cast<PreviewCollect*>(self);
  const GstMessageType type = GST_MESSAGE_TYPE(message);
  if (type == GST_MESSAGE_ERROR) collect.m_guard.Run([&] { LogError(collect.m_path, message); });
  if (type == GST_MESSAGE_ERROR || type == GST_MESSAGE_EOS) g_main_loop_quit(collect.m_loop);
  return G_SOURCE_CONTINUE;
}

/// Sees what does not come by way of Stopping: a stop that is only requested, one that came before the loop ran, and a
/// pipeline that neither ends nor fails.
gboolean PreviewCollect::OnTick(gpointer self) noexcept {
  auto& collect = *static_cast<PreviewCollect*>(self);
  const bool late = std::chrono::steady_clock::now() > collect.m_deadline;
  if (late) {
    collect.m_guard.Run(
        [&] { Log::Error("preview " + collect.m_path + ": its pipeline does not end and is stopped"); });
  }
  if (late || collect.ShouldStop()) g_main_loop_quit(collect.m_loop);
  return G_SOURCE_CONTINUE;
}

GstPadProbeReturn PreviewCollect::RunningCallback(GstPad*, GstPadProbeInfo*, void* self) noexcept {
  // The probe stays until the end: without it the third frame would become a second picture in the still's file.
  return static_cast<PreviewCollect*>(self)->m_probeBuffers++ == 0 ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
}

void PreviewCollect::NeedDataPreview(GstElement*, guint, void* self) noexcept {
  static_cast<PreviewCollect*>(self)->Feed();
}

void PreviewCollect::Feed() {
  std::unique_lock lock(m_mutex);
  if (m_feeding) {
    // The other camera's thread is about to push for both.
    m_changed.wait(lock, [this] { return !m_feeding; });
    return;
  }
  m_feeding = true;
  m_changed.wait_for(lock, GetInterval(), [this] { return m_ending.load(); });
  lock.unlock();
  bool more = false;
  m_guard.Run([&] { more = !m_ending && PushNext(); });
  for (auto& source : m_appSrcs) {
    if (!more && !m_ending && source) gst_app_src_end_of_stream(GST_APP_SRC(source.Get()));
  }
  lock.lock();
  m_feeding = false;
  m_ending = m_ending || !more;
  m_changed.notify_all();
}

/// Pushes the next frame of each camera; false when that was the clip's last.
bool PreviewCollect::PushNext() {
  std::array<RingReader::Entry, Cameras> entries;
  for (std::size_t camera = 0; camera < Cameras; ++camera) {
    if (!m_readers[camera]) continue;
    entries[camera] = WaitForEntry(camera);
    if (m_ending) return false;
    if (entries[camera]) continue;
    Log::Warning(
        fmt::format("preview {}: {} has ended after {} frames", m_path, SourceNames[camera], m_framesPushed.load()));
    m_readers[camera].reset();
    gst_app_src_end_of_stream(GST_APP_SRC(m_appSrcs[camera].Get()));
  }
  if (!entries[0] && !entries[1]) return false;
  for (std::size_t camera = 0; camera < Cameras; ++camera) {
    if (entries[camera]) Push(camera, entries[camera].get());
  }
  return ++m_framesPushed < static_cast<unsigned int>(m_frameCount);
}

/// The camera's next entry, which may not have been made yet; null when its source is silent or gone.
RingReader::Entry PreviewCollect::WaitForEntry(std::size_t camera) {
  const auto deadline = std::chrono::steady_clock::now() + GetSilenceLimit();
  RingReader& reader = *m_readers[camera];
  for (;;) {
    auto ring = GetRing(camera);
    if (ring) reader.Follow(*ring, ring->GetCurrentFrameId());
    if (auto entry = reader.Next()) return entry;
    if (!ring || std::chrono::steady_clock::now() >= deadline) return nullptr;
    ring.reset();
    std::unique_lock lock(m_mutex);
    if (m_changed.wait_for(lock, PullPeriod, [this] { return m_ending.load(); })) return nullptr;
  }
}

/// Other events read the entry, too: it keeps its time, and a copy that shares its pixels gets its place in the clip.
void PreviewCollect::Push(std::size_t camera, const Kbase::Pipeline::IPipelineCbElement* entry) {
  const auto* media = dynamic_cast<const GstUtil::GstPipelineCbElement*>(entry);
  if (media == nullptr || !GstUtil::IsUsable(media->buffer)) return;
  GstBuffer* copy = gst_buffer_copy(media->buffer);
  const auto timeOf = [this](guint64 frame) { return gst_util_uint64_scale(frame, GST_SECOND, guint64(m_fps)); };
  SetTime(copy, timeOf(m_framesPushed), timeOf(m_framesPushed + 1U));
  gst_app_src_push_buffer(GST_APP_SRC(m_appSrcs[camera].Get()), copy);
}

}  // namespace Tavi::PipelineCollect
