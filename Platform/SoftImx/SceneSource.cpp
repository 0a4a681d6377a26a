// The live source behind a camera named "sim:NAME".
#include "SoftImx/SceneSource.h"

#include <gst/base/gstpushsrc.h>
#include <gst/video/gstvideometa.h>
#include <gst/video/gstvideopool.h>
#include <gst/video/video.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "SoftImx/Handover.h"
#include "SoftImx/ScenePainter.h"

namespace SoftImx {
namespace {

/// What start() prepares and the streaming thread uses.
struct SceneState {
  /// GLib's locks are invisible to ThreadSanitizer; this one is not, and never contended.
  std::mutex mutex;
  SceneSettings settings;
  std::unique_ptr<ScenePainter> painter;
  GstVideoInfo info;
  /// Running time 0 lies so many nanoseconds after frame 0.
  std::int64_t originNs = 0;
  std::optional<std::uint64_t> firstFrame;
  std::uint64_t nextFrame = 0;
};

struct SceneSource {
  GstPushSrc parent;
  SceneState* state;
};

struct SceneSourceClass {
  GstPushSrcClass parent;
};

SceneState& StateOf(gpointer element) {
  return *LoadState(static_cast<SceneSource*>(element)->state);
}

GstDebugCategory* Category() {
  static GstDebugCategory* const category = _gst_debug_category_new("softimxscene", 0, "simulated camera");
  return category;
}

/// How long after frame 0 a frame comes.
GstClockTime FrameTime(const SceneSettings& settings, std::uint64_t frame) {
  return gst_util_uint64_scale(frame, GST_SECOND * static_cast<guint64>(settings.rateDenominator),
                               static_cast<guint64>(settings.rateNumerator));
}

/// The running time of a frame that does not come before running time 0.
GstClockTime StampOf(const SceneState& state, std::uint64_t frame) {
  return static_cast<GstClockTime>(static_cast<std::int64_t>(FrameTime(state.settings, frame)) - state.originNs);
}

/// The last frame at or before `runningTime`, or the first one after running time 0.
std::uint64_t FrameAt(const SceneState& state, GstClockTime runningTime) {
  const auto [numerator, denominator] = std::pair(static_cast<guint64>(state.settings.rateNumerator),
                                                  GST_SECOND * static_cast<guint64>(state.settings.rateDenominator));
  const std::int64_t elapsed = static_cast<std::int64_t>(runningTime) + state.originNs;
  const auto frame =
      gst_util_uint64_scale(static_cast<guint64>(std::max<std::int64_t>(elapsed, 0)), numerator, denominator);
  return static_cast<std::int64_t>(FrameTime(state.settings, frame)) < state.originNs ? frame + 1 : frame;
}

/// The pipeline's clock and the wall clock read at the same moment.
struct ClockPair {
  GstClockTime clock;
  std::int64_t wallNs;
};

/// Reads the two clocks around each other and keeps the closest of three tries: a pre-emption between the readings
/// would shift the wall time of this one frame.
ClockPair ReadClocks(GstClock* clock) {
  ClockPair best{};
  GstClockTime bestGap = std::numeric_limits<GstClockTime>::max();
  for (int attempt = 0; attempt < 3 && bestGap > 5 * GST_USECOND; ++attempt) {
    const GstClockTime before = gst_clock_get_time(clock);
    const std::int64_t wallNs = g_get_real_time() * 1000;
    const GstClockTime gap = gst_clock_get_time(clock) - before;
    if (gap >= bestGap) continue;
    bestGap = gap;
    best = {before + gap / 2, wallNs};
  }
  return best;
}

/// Reads both clocks once they are seen to run together: a sound card's clock stands still until the card delivers, and
/// reads behind for an instant while it hands a period over.
ClockPair ReadRunningClocks(GstClock* clock) {
  constexpr int Attempts = 50;
  constexpr gulong PauseUs = 5000;
  constexpr std::int64_t ToleranceNs = 500'000;
  ClockPair last = ReadClocks(clock);
  for (int attempt = 0; attempt < Attempts; ++attempt) {
    g_usleep(PauseUs);
    const ClockPair now = ReadClocks(clock);
    const std::int64_t apart = GST_CLOCK_DIFF(last.clock, now.clock) - (now.wallNs - last.wallNs);
    if (std::abs(apart) <= ToleranceNs) return now;
    last = now;
  }
  return last;
}

/// Puts the frames on the grid of the wall clock's seconds: where the rate is whole, each second begins with a frame. A
/// frame a little behind the full second is sure to show that it has begun.
void AnchorToWallClock(SceneState& state, ClockPair now, GstClockTime baseTime) {
  constexpr std::int64_t BehindNs = 1'000'000;
  constexpr std::int64_t SecondNs = 1'000'000'000;
  const std::int64_t wallAtZero = now.wallNs - GST_CLOCK_DIFF(baseTime, now.clock);
  state.originNs = (wallAtZero - BehindNs) % SecondNs;
}

bool IsFirst(SceneState& state) {
  const std::lock_guard lock(state.mutex);
  return !state.firstFrame;
}

/// The first frame at or after `frame` that does not fall into a standstill, which the name puts somewhere into each
/// 40 s.
std::uint64_t SkipStandstill(const SceneState& state, std::uint64_t frame) {
  constexpr std::uint64_t PeriodMs = 40'000;
  if (state.settings.stallMs == 0) return frame;
  const auto stallMs = static_cast<std::uint64_t>(state.settings.stallMs);
  const std::uint64_t beginMs = std::hash<std::string>()(state.settings.name) % (PeriodMs - stallMs);
  const auto isStill = [&](std::uint64_t candidate) {
    const std::uint64_t phaseMs = FrameTime(state.settings, candidate) / GST_MSECOND % PeriodMs;
    return phaseMs >= beginMs && phaseMs < beginMs + stallMs;
  };
  while (isStill(frame)) ++frame;
  return frame;
}

/// Decides which frame comes next. True when frames before it were lost: downstream held the stream up for longer than
/// the capture queue of a camera would have lasted.
bool TakeFrameNumber(SceneState& state, GstClockTime runningTime, std::uint64_t& frame) {
  const std::uint64_t current = FrameAt(state, runningTime);
  const auto slack = static_cast<std::uint64_t>(state.settings.queueSize);
  const bool isLost = state.firstFrame && current > state.nextFrame + slack;
  frame = !state.firstFrame ? current : isLost ? current + 1 : state.nextFrame;
  frame = SkipStandstill(state, frame);
  if (!state.firstFrame) state.firstFrame = frame;
  state.nextFrame = frame + 1;
  return isLost;
}

bool IsPulled(const SceneState& state) {
  if (state.settings.failMs == 0) return false;
  const GstClockTime played = FrameTime(state.settings, state.nextFrame) - FrameTime(state.settings, *state.firstFrame);
  return played > static_cast<GstClockTime>(state.settings.failMs) * GST_MSECOND;
}

SOFTIMX_FILLS_HEADER void Stamp(const SceneState& state, GstBuffer* buffer, std::uint64_t frame, bool isLost) {
  GST_BUFFER_PTS(buffer) = StampOf(state, frame);
  GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
  GST_BUFFER_DURATION(buffer) = StampOf(state, frame + 1) - StampOf(state, frame);
  GST_BUFFER_OFFSET(buffer) = frame;
  GST_BUFFER_OFFSET_END(buffer) = frame + 1;
  if (isLost) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
}

bool PaintInto(const SceneState& state, GstBuffer* buffer, std::int64_t wallNs) {
  GstVideoFrame frame;
  if (gst_video_frame_map(&frame, &state.info, buffer, GST_MAP_WRITE) == FALSE) return false;
  I420Planes planes{};
  for (guint plane = 0; plane < 3; ++plane) {
    planes.data[plane] = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
    planes.stride[plane] = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
  }
  state.painter->Paint(planes, wallNs);
  gst_video_frame_unmap(&frame);
  return true;
}

GstFlowReturn Fill(GstPushSrc* source, GstBuffer* buffer) noexcept {
  GstClock* clock = gst_element_get_clock(GST_ELEMENT(source));
  if (clock == nullptr) {
    GST_ELEMENT_ERROR(source, CORE, CLOCK, ("The simulated camera has no clock to run by."), (nullptr));
    return GST_FLOW_ERROR;
  }
  SceneState& state = StateOf(source);
  const bool isFirst = IsFirst(state);
  const ClockPair now = isFirst ? ReadRunningClocks(clock) : ReadClocks(clock);
  gst_object_unref(clock);
  const GstClockTime baseTime = gst_element_get_base_time(GST_ELEMENT(source));

  const std::lock_guard lock(state.mutex);
  if (isFirst) AnchorToWallClock(state, now, baseTime);
  std::uint64_t frame = 0;
  const bool isLost = TakeFrameNumber(state, now.clock > baseTime ? now.clock - baseTime : 0, frame);
  if (IsPulled(state)) {
    GST_ELEMENT_ERROR(source, RESOURCE, READ, ("The simulated camera is pulled."), (nullptr));
    return GST_FLOW_ERROR;
  }
  if (isLost) GST_CAT_WARNING_OBJECT(Category(), source, "frames lost, downstream is too slow");
  Stamp(state, buffer, frame, isLost);
  // The base class pushes the frame when the clock reaches its time stamp: this is the wall time that it will be then.
  const std::int64_t aheadNs = GST_CLOCK_DIFF(now.clock, baseTime + GST_BUFFER_PTS(buffer));
  return PaintInto(state, buffer, now.wallNs + aheadNs) ? GST_FLOW_OK : GST_FLOW_ERROR;
}

gboolean Start(GstBaseSrc* source) noexcept {
  SceneState& state = StateOf(source);
  const std::lock_guard lock(state.mutex);
  state.painter = std::make_unique<ScenePainter>(state.settings.name, state.settings.width, state.settings.height);
  state.firstFrame.reset();
  return TRUE;
}

gboolean Stop(GstBaseSrc* source) noexcept {
  SceneState& state = StateOf(source);
  const std::lock_guard lock(state.mutex);
  state.painter.reset();
  return TRUE;
}

GstCaps* GetCaps(GstBaseSrc* source, GstCaps* filter) noexcept {
  SceneState& state = StateOf(source);
  const std::lock_guard lock(state.mutex);
  GstCaps* caps = gst_video_info_to_caps(&state.info);
  if (filter == nullptr) return caps;
  GstCaps* common = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
  gst_caps_unref(caps);
  return common;
}

/// A pool of our own in any case: the pictures are to stay in plain cached memory with the plain layout.
gboolean DecideAllocation(GstBaseSrc* source, GstQuery* query) noexcept {
  GstCaps* caps = nullptr;
  gst_query_parse_allocation(query, &caps, nullptr);
  if (caps == nullptr) return FALSE;
  SceneState& state = StateOf(source);
  const std::lock_guard lock(state.mutex);
  const auto sizeBytes = static_cast<guint>(GST_VIDEO_INFO_SIZE(&state.info));
  const auto count = static_cast<guint>(state.settings.queueSize);
  GstBufferPool* pool = gst_video_buffer_pool_new();
  GstStructure* config = gst_buffer_pool_get_config(pool);
  gst_buffer_pool_config_set_params(config, caps, sizeBytes, count, 0);
  const gboolean isSet = gst_buffer_pool_set_config(pool, config);
  if (gst_query_get_n_allocation_pools(query) > 0) {
    gst_query_set_nth_allocation_pool(query, 0, pool, sizeBytes, count, 0);
  } else {
    gst_query_add_allocation_pool(query, pool, sizeBytes, count, 0);
  }
  gst_object_unref(pool);
  return isSet;
}

/// Tells the base class when to push the frame. Of the first frame, whose time has come already, it gets no time: it
/// would take a late first frame for the source's latency and move all time stamps off the grid by it.
void GetTimes(GstBaseSrc* source, GstBuffer* buffer, GstClockTime* start, GstClockTime* end) noexcept {
  SceneState& state = StateOf(source);
  const std::lock_guard lock(state.mutex);
  const bool isFirst = state.firstFrame == GST_BUFFER_OFFSET(buffer);
  *start = isFirst ? GST_CLOCK_TIME_NONE : GST_BUFFER_PTS(buffer);
  *end = isFirst ? GST_CLOCK_TIME_NONE : GST_BUFFER_PTS(buffer) + GST_BUFFER_DURATION(buffer);
}

/// As of a camera: a frame is there when it has been exposed, and may then wait in the capture queue.
gboolean Query(GstBaseSrc* source, GstQuery* query) noexcept {
  if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY) {
    return GST_BASE_SRC_CLASS(g_type_class_peek(GST_TYPE_PUSH_SRC))->query(source, query);
  }
  SceneState& state = StateOf(source);
  const std::lock_guard lock(state.mutex);
  const GstClockTime frame = FrameTime(state.settings, 1);
  gst_query_set_latency(query, TRUE, frame, frame * static_cast<guint64>(state.settings.queueSize));
  return TRUE;
}

void Finalize(GObject* object) noexcept {
  SceneState* const state = &StateOf(object);
  G_OBJECT_CLASS(g_type_class_peek(GST_TYPE_PUSH_SRC))->finalize(object);
  DiscardState(state);
}

void ClassInit(gpointer klass, gpointer) noexcept {
  G_OBJECT_CLASS(klass)->finalize = Finalize;
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  gst_element_class_set_static_metadata(element, "Simulated camera", "Source/Video", "Delivers a drawn street scene",
                                        "Tavi");
  GstCaps* caps = gst_caps_from_string(GST_VIDEO_CAPS_MAKE("I420"));
  gst_element_class_add_pad_template(element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);
  GstBaseSrcClass* base = GST_BASE_SRC_CLASS(klass);
  base->start = Start;
  base->stop = Stop;
  base->get_caps = GetCaps;
  base->get_times = GetTimes;
  base->query = Query;
  base->decide_allocation = DecideAllocation;
  GST_PUSH_SRC_CLASS(klass)->fill = Fill;
}

void InstanceInit(GTypeInstance* instance, gpointer) noexcept {
  PublishState(reinterpret_cast<SceneSource*>(instance)->state, new SceneState);
  GstBaseSrc* base = GST_BASE_SRC(instance);
  gst_base_src_set_live(base, TRUE);
  gst_base_src_set_format(base, GST_FORMAT_TIME);
}

GType SceneSourceType() {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_PUSH_SRC, "SoftImxSceneSource", sizeof(SceneSourceClass), ClassInit,
                                    sizeof(SceneSource), InstanceInit, GTypeFlags(0));
  return type;
}

/// All of `text` as a number; nothing when it is none.
template <class Number>
std::optional<Number> ToNumber(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

}  // namespace

bool ApplySceneName(const std::string& text, SceneSettings& settings) {
  constexpr int Thousandths = 1000;
  const auto at = text.find('@');
  settings.name = text.substr(0, at);
  if (at != std::string::npos) {
    const auto rest = std::string_view(text).substr(at + 1);
    const auto mark = rest.find_first_of("~!");
    const auto time = mark == std::string_view::npos ? std::optional(0) : ToNumber<int>(rest.substr(mark + 1));
    const auto delivered = ToNumber<double>(rest.substr(0, mark));
    if (!time || *time < 0 || *time > 30000 || !delivered || *delivered < 0.1 || *delivered > 2.0) return false;
    (mark != std::string_view::npos && rest[mark] == '!' ? settings.failMs : settings.stallMs) = *time;
    settings.rateNumerator *= static_cast<int>(std::lround(*delivered * Thousandths));
    settings.rateDenominator *= Thousandths;
  }
  return !settings.name.empty();
}

GstElement* NewSceneSource(const SceneSettings& settings) {
  auto* source = GST_ELEMENT(g_object_new(SceneSourceType(), "name", "scene", nullptr));
  SceneState& state = StateOf(source);
  const std::lock_guard lock(state.mutex);
  state.settings = settings;
  GstVideoInfo& info = state.info;
  gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420, static_cast<guint>(settings.width),
                            static_cast<guint>(settings.height));
  info.fps_n = settings.rateNumerator;
  info.fps_d = settings.rateDenominator;
  gst_base_src_set_blocksize(GST_BASE_SRC(source), static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)));
  return source;
}

}  // namespace SoftImx
