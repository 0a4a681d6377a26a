// Whether an encoder's stream keeps the contract, found out by a few frames.
#include "SoftImx/EncoderTrial.h"

#include <gst/video/video.h>

#include <vector>

#include "SoftImx/AccessUnit.h"

namespace SoftImx {
namespace {

constexpr guint Interval = 4;
constexpr guint Frames = 2 * Interval + 1;
constexpr GstClockTime Patience = 10 * GST_SECOND;

struct Trial {
  bool needsRequests;
  guint fed = 0;
  std::vector<UnitFacts> units;
};

GstPadProbeReturn OnFed(GstPad* pad, GstPadProbeInfo*, gpointer data) noexcept {
  auto& trial = *static_cast<Trial*>(data);
  if (trial.fed++ % Interval == 0 && trial.needsRequests) {
    gst_pad_send_event(pad, gst_video_event_new_downstream_force_key_unit(GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE,
                                                                          GST_CLOCK_TIME_NONE, TRUE, 0));
  }
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn OnUnit(GstPad*, GstPadProbeInfo* info, gpointer data) noexcept {
  static_cast<Trial*>(data)->units.push_back(Inspect(GST_PAD_PROBE_INFO_BUFFER(info)));
  return GST_PAD_PROBE_OK;
}

void Probe(GstElement* pipeline, const char* element, const char* padName, GstPadProbeCallback callback, Trial& trial) {
  GstElement* found = gst_bin_get_by_name(GST_BIN(pipeline), element);
  GstPad* pad = gst_element_get_static_pad(found, padName);
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, callback, &trial, nullptr);
  gst_object_unref(pad);
  gst_object_unref(found);
}

std::string Judge(const std::vector<UnitFacts>& units) {
  if (units.size() != Frames)
    return "it gave " + std::to_string(units.size()) + " for " + std::to_string(Frames) + " frames";
  for (guint i = 0; i < Frames; ++i) {
    const bool isKeyDue = i % Interval == 0;
    if (units[i].hasB) return "it has B frames";
    if (isKeyDue && !units[i].IsEntry()) return "a key frame or its parameter sets are missing";
    if (!isKeyDue && units[i].isIdr) return "it has key frames of its own";
  }
  return {};
}

/// Plays to its end; what went wrong, empty for nothing.
std::string Play(GstElement* pipeline) {
  GstBus* bus = gst_element_get_bus(pipeline);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstMessage* message = gst_bus_timed_pop_filtered(bus, Patience, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  std::string problem = message == nullptr ? "it came to no end" : "";
  if (message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    problem = error->message;
    g_error_free(error);
  }
  if (message != nullptr) gst_message_unref(message);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(bus);
  return problem;
}

}  // namespace

std::string TryEncoder(const EncoderKind& kind) {
  // The size that cameras have unless told otherwise: some hardware does not take small pictures.
  const std::string description = "videotestsrc num-buffers=" + std::to_string(Frames) +
                                  " ! video/x-raw,format=I420,width=1280,height=720,framerate=30/1 ! videoconvert ! " +
                                  kind.factory + " name=codec ! " + kind.caps + " ! fakesink name=out async=false";
  GstElement* pipeline = gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, nullptr);
  if (pipeline == nullptr) return "it cannot be made";
  gst_object_ref_sink(pipeline);
  GstElement* codec = gst_bin_get_by_name(GST_BIN(pipeline), "codec");
  kind.prepare(codec);
  kind.order(codec, {2048, Interval});
  gst_object_unref(codec);
  Trial trial{kind.needsRequests, 0, {}};
  Probe(pipeline, "codec", "sink", OnFed, trial);
  Probe(pipeline, "out", "sink", OnUnit, trial);
  std::string problem = Play(pipeline);
  gst_object_unref(pipeline);
  return problem.empty() ? Judge(trial.units) : problem;
}

}  // namespace SoftImx
