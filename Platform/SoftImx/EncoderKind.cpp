// The machine's H.264 encoders: how each is told to keep the stream's contract, and which one is taken.
#include "SoftImx/EncoderKind.h"

#include <cstring>
#include <map>
#include <mutex>

#include "SoftImx/EncoderTrial.h"

namespace SoftImx {
namespace {

/// Without a profile an encoder takes the highest that downstream accepts, which is more than the unit's own writes.
constexpr const char* ContractCaps =
    "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, "
    "profile=(string){ main, constrained-baseline }";
/// Some drivers start only at a level that is named; 4 is that of 1920x1080 at 30 frames/s.
constexpr const char* LevelledCaps =
    "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, "
    "profile=(string){ main, constrained-baseline }, level=(string){ 4, 4.1, 4.2, 5 }";

/// Sets what the element knows of `name`; versions and drivers differ.
void Set(GstElement* codec, const char* name, const std::string& value) {
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(codec), name) == nullptr) return;
  gst_util_set_object_arg(G_OBJECT(codec), name, value.c_str());
}

/// No delay, one thread, no key frame but those of the interval. The preset is the slowest that leaves a desktop's
/// processor to the rest: 1280x720 takes it some 3 ms a frame. The tune for low latency also makes rate control count
/// frames rather than read time stamps, which may repeat.
void PrepareX264(GstElement* codec) {
  Set(codec, "speed-preset", "superfast");
  Set(codec, "tune", "zerolatency");
  // A white flash is no scene cut.
  g_object_set(codec, "threads", 1U, "sliced-threads", FALSE, "bframes", 0U, "byte-stream", TRUE, "option-string",
               "scenecut=0", nullptr);
}

void OrderX264(GstElement* codec, const EncoderOrder& order) {
  g_object_set(codec, "bitrate", order.bitrateKbps, "key-int-max", order.interval, nullptr);
}

/// It has no B frames, and skips none to keep its bit rate unless told so.
void PrepareOpenH264(GstElement* codec) {
  Set(codec, "rate-control", "bitrate");
  Set(codec, "complexity", "low");
  g_object_set(codec, "enable-frame-skip", FALSE, "scene-change-detection", FALSE, "multi-thread", 1U, nullptr);
}

void OrderOpenH264(GstElement* codec, const EncoderOrder& order) {
  g_object_set(codec, "bitrate", order.bitrateKbps * 1000, "gop-size", order.interval, nullptr);
}

void PrepareVa(GstElement* codec) {
  Set(codec, "rate-control", "cbr");
  Set(codec, "b-frames", "0");
  Set(codec, "max-bframes", "0");
}

void OrderVa(GstElement* codec, const EncoderOrder& order) {
  Set(codec, "bitrate", std::to_string(order.bitrateKbps));
  Set(codec, "key-int-max", std::to_string(order.interval));
  Set(codec, "keyframe-period", std::to_string(order.interval));
}

void PrepareV4l2(GstElement*) {}

/// Controls of the kernel's codec interface; a driver without one of them leaves it out.
void OrderV4l2(GstElement* codec, const EncoderOrder& order) {
  const auto interval = static_cast<int>(order.interval);
  GstStructure* controls = gst_structure_new(
      "controls", "video_bitrate", G_TYPE_INT, static_cast<int>(order.bitrateKbps) * 1000, "video_bitrate_mode",
      G_TYPE_INT, 1, "h264_i_frame_period", G_TYPE_INT, interval, "video_gop_size", G_TYPE_INT, interval,
      "video_b_frames", G_TYPE_INT, 0, "repeat_sequence_header", G_TYPE_INT, 1, nullptr);
  g_object_set(codec, "extra-controls", controls, nullptr);
  gst_structure_free(controls);
}

// clang-format off
constexpr EncoderKind Kinds[] = {
    {"v4l2", "v4l2h264enc", true, true, LevelledCaps, PrepareV4l2, OrderV4l2},
    {"vaapi", "vah264enc", true, true, ContractCaps, PrepareVa, OrderVa},
    {"vaapi", "vah264lpenc", true, true, ContractCaps, PrepareVa, OrderVa},
    {"vaapi", "vaapih264enc", true, true, ContractCaps, PrepareVa, OrderVa},
    {"x264", "x264enc", false, false, ContractCaps, PrepareX264, OrderX264},
    {"openh264", "openh264enc", false, true, ContractCaps, PrepareOpenH264, OrderOpenH264},
};
// clang-format on

bool HasElement(const char* factory) {
  GstElementFactory* found = gst_element_factory_find(factory);
  if (found == nullptr) return false;
  // In the registry's cache it may outlive its plug-in.
  GstPluginFeature* loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(found));
  if (loaded != nullptr) gst_object_unref(loaded);
  gst_object_unref(found);
  return loaded != nullptr;
}

/// What a trial has shown, remembered: a machine's hardware does not change while a process runs.
std::string TryOnce(const EncoderKind& kind) {
  static std::mutex mutex;
  static std::map<const EncoderKind*, std::string> found;
  const std::lock_guard lock(mutex);
  const auto known = found.find(&kind);
  return known != found.end() ? known->second : found.emplace(&kind, TryEncoder(kind)).first->second;
}

}  // namespace

const EncoderKind* FindEncoder(const std::string& name, std::string& problem) {
  std::string names = AnyEncoder;
  std::string missing;
  const char* previous = "";
  for (const EncoderKind& kind : Kinds) {
    if (std::strcmp(kind.name, previous) != 0) names += std::string(", ") + kind.name;
    previous = kind.name;
    if (name != AnyEncoder && name != kind.name) continue;
    std::string fault = HasElement(kind.factory) ? "" : "is missing";
    if (fault.empty() && kind.isHardware) fault = TryOnce(kind);
    if (fault.empty()) return &kind;
    missing += std::string(missing.empty() ? "" : "; ") + kind.factory + ": " + fault;
  }
  problem = missing.empty() ? "There is no encoder \"" + name + "\"; " + names + " are right."
                            : "The encoder \"" + name + "\" cannot be had (" + missing + ").";
  return nullptr;
}

}  // namespace SoftImx
