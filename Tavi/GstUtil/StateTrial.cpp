// Bringing one element to a state without its pipeline, which learns nothing of what goes wrong.
#include "Tavi/GstUtil/StateTrial.h"

#include "Tavi/GstUtil/GstRef.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::GstUtil {
namespace {

std::string GetError(GstMessage* message) {
  GError* error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  std::string text = error->message;
  g_error_free(error);
  return text;
}

}  // namespace

std::string TryState(GstElement* element, GstState state) {
  const auto before = GstRef<GstBus>::Adopt(gst_element_get_bus(element));
  const auto bus = GstRef<GstBus>::Adopt(gst_bus_new());
  gst_element_set_bus(element, bus.Get());
  const bool hasFailed = gst_element_set_state(element, state) == GST_STATE_CHANGE_FAILURE;
  std::string problem;
  while (GstMessage* message = gst_bus_pop(bus.Get())) {
    // Some report an error and go on. The first of several tells what has happened.
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR && problem.empty()) problem = GetError(message);
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_INFO) LogInfo(message);
    gst_message_unref(message);
  }
  if (hasFailed && problem.empty()) problem = "it does not start";
  if (!problem.empty()) gst_element_set_state(element, GST_STATE_NULL);
  gst_bus_set_flushing(bus.Get(), TRUE);
  gst_element_set_bus(element, before.Get());
  return problem;
}

void LogInfo(GstMessage* message) {
  GError* info = nullptr;
  gst_message_parse_info(message, &info, nullptr);
  if (info->message != nullptr) Log::Info(info->message);
  g_error_free(info);
}

}  // namespace Tavi::GstUtil
