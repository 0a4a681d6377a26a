// How the plug-in shares the registry with a hardware plug-in; leaves the process without the stand-in encoder.
#include <gmock/gmock.h>

#include <string>

#include "SoftImx/GstRun.h"
#include "Tavi/GstUtil/GstRef.h"

namespace SoftImx::Test {
namespace {

using Tavi::GstUtil::GstRef;

/// The plug-in that supplies `element`, empty for none.
std::string SupplierOf(const char* element) {
  const auto feature = GstRef<GstPluginFeature>::Adopt(gst_registry_lookup_feature(gst_registry_get(), element));
  return feature ? gst_plugin_feature_get_plugin_name(feature.Get()) : "";
}

/// Puts `type` under the name of a hardware encoder.
void RegisterHardware(const char* name, GType type) {
  static const char* registered;
  static GType registeredType;
  registered = name;
  registeredType = type;
  const auto enter = [](GstPlugin* plugin) {
    return gst_element_register(plugin, registered, GST_RANK_PRIMARY, registeredType);
  };
  ASSERT_TRUE(gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, name, name, enter, "1", "LGPL", name,
                                         name, name));
}

GType TypeOf(const char* factory) {
  const auto loaded = GstRef<GstElementFactory>::Adopt(
      GST_ELEMENT_FACTORY(gst_plugin_feature_load(GST_PLUGIN_FEATURE(gst_element_factory_find(factory)))));
  return gst_element_factory_get_element_type(loaded.Get());
}

/// What the encoder tells when it is opened with this name for its kind.
std::string Told(const std::string& codec) {
  GstRun run("videotestsrc ! imxvpuenc_h264 codec=" + codec + " ! fakesink");
  return run.Play() == GST_STATE_CHANGE_FAILURE ? run.Error() : run.Infos();
}

// Catches hardware that is taken though its stream is not what the recording needs, hardware that is not taken, and a
// name that silently gets another encoder.
TEST(Plugin, TakesHardwareThatKeepsTheContract) {
  gst_init(nullptr, nullptr);
  EXPECT_EQ(Told("auto"), "Pictures are encoded by x264enc.\n");
  EXPECT_EQ(Told("v4l2"), "The encoder \"v4l2\" cannot be had (v4l2h264enc: is missing).");
  EXPECT_EQ(Told("x265"), "There is no encoder \"x265\"; auto, v4l2, vaapi, x264, openh264 are right.");
  RegisterHardware("vah264enc", TypeOf("x264enc"));  // As it comes it puts key frames where it likes.
  EXPECT_THAT(Told("vaapi"), testing::HasSubstr("vah264enc: it has key frames of its own;"));
  if (gst_registry_check_feature_version(gst_registry_get(), "openh264enc", 1, 0, 0) == FALSE) GTEST_SKIP();
  RegisterHardware("vah264lpenc", TypeOf("openh264enc"));
  EXPECT_EQ(Told("auto"), "Pictures are encoded by vah264lpenc.\n");
  EXPECT_EQ(Told("x264"), "Pictures are encoded by x264enc.\n");
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
