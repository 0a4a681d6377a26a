// How the plug-in shares the registry with a hardware plug-in; leaves the process without the stand-in encoder.
#include <gtest/gtest.h>

#include <string>

#include "Tavi/GstUtil/GstRef.h"

namespace SoftImx::Test {
namespace {

using Tavi::GstUtil::GstRef;

/// The plug-in that supplies `element`, empty for none.
std::string SupplierOf(const char* element) {
  const auto feature = GstRef<GstPluginFeature>::Adopt(gst_registry_lookup_feature(gst_registry_get(), element));
  return feature ? gst_plugin_feature_get_plugin_name(feature.Get()) : "";
}

// Catches a stand-in that takes the place of hardware, and one that withdraws before its own cached entries.
TEST(Plugin, LeavesNamesToHardware) {
  gst_init(nullptr, nullptr);
  ASSERT_EQ(SupplierOf("imxvpuenc_h264"), "softimx");
  ASSERT_TRUE(GstRef<GstElement>::Sink(gst_element_factory_make("imxvpuenc_h264", nullptr)));
  const auto cached = GstRef<GstPlugin>::Adopt(gst_registry_find_plugin(gst_registry_get(), "softimx"));
  gst_registry_remove_plugin(gst_registry_get(), cached.Get());
  const auto registerHardware = [](GstPlugin* plugin) {
    return gst_element_register(plugin, "imxvpuenc_h264", GST_RANK_PRIMARY, GST_TYPE_BIN);
  };
  ASSERT_TRUE(gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "hardware", "hardware", registerHardware,
                                         "1", "LGPL", "hardware", "hardware", "hardware"));
  gst_object_unref(gst_plugin_load_file(SOFTIMX_FILE, nullptr));
  EXPECT_EQ(SupplierOf("imxvpuenc_h264"), "hardware");
  EXPECT_EQ(SupplierOf("imxv4l2videosrc"), "softimx");
}

}  // namespace
}  // namespace SoftImx::Test
