// The plug-in's entry: registers each element whose name nobody else supplies.
#include <gst/gst.h>

#include "SoftImx/AudioEncoder.h"
#include "SoftImx/Compositor.h"
#include "SoftImx/VideoEncoder.h"
#include "SoftImx/VideoSource.h"
#include "SoftImx/VideoTransform.h"

#define PACKAGE "tavi"

namespace SoftImx {
namespace {

struct Element {
  const char* name;
  GType (*type)();
};

// clang-format off
constexpr Element Elements[] = {
    {"imxipucompositor", CompositorType},
    {"imxmp3audioenc", AudioEncoderType},
    {"imxv4l2videosrc", VideoSourceType},
    {"imxvpuenc_h264", VideoEncoderType},
    {"imxipuvideotransform", VideoTransformType},
};
// clang-format on

/// Whether another plug-in supplies `name`. Our own entry of an earlier scan, read back from the registry's cache, is
/// not another plug-in. A hardware plug-in that is scanned after this one replaces the entry by itself.
bool IsSuppliedElsewhere(GstPlugin* self, const char* name) {
  GstPluginFeature* feature = gst_registry_lookup_feature(gst_registry_get(), name);
  if (feature == nullptr) return false;
  const bool isOther = g_strcmp0(gst_plugin_feature_get_plugin_name(feature), gst_plugin_get_name(self)) != 0;
  gst_object_unref(feature);
  return isOther;
}

gboolean Init(GstPlugin* plugin) noexcept {
  gboolean isComplete = TRUE;
  for (const Element& element : Elements) {
    if (IsSuppliedElsewhere(plugin, element.name)) continue;
    // Rank NONE: found by name alone, never chosen by an autoplugger.
    if (gst_element_register(plugin, element.name, GST_RANK_NONE, element.type()) == FALSE) isComplete = FALSE;
  }
  return isComplete;
}

}  // namespace
}  // namespace SoftImx

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, softimx,
                  "The recording unit's media elements in software, for machines without its hardware", SoftImx::Init,
                  TAVI_VERSION, GST_LICENSE_UNKNOWN, "Tavi", "Tavi")
