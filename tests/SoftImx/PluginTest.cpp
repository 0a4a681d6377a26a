// How the plug-in shares the registry with a hardware plug-in.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>

namespace SoftImx::Test {
namespace {

gboolean RegisterHardware(GstPlugin* plugin) {
  GstElementFactory* identity = gst_element_factory_find("identity");
  GstPluginFeature* loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(identity));
  const GType type = gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(loaded));
  gst_object_unref(loaded);
  gst_object_unref(identity);
  return gst_element_register(plugin, "imxvpuenc_h264", GST_RANK_PRIMARY, type);
}

/// The plug-in that supplies `element`, empty for none.
std::string SupplierOf(const char* element) {
  GstPluginFeature* feature = gst_registry_lookup_feature(gst_registry_get(), element);
  if (feature == nullptr) return {};
  const std::string supplier = gst_plugin_feature_get_plugin_name(feature);
  EXPECT_TRUE(supplier != "softimx" || gst_plugin_feature_get_rank(feature) == GST_RANK_NONE);
  gst_object_unref(feature);
  return supplier;
}

bool LoadFromFile() {
  GError* error = nullptr;
  GstPlugin* plugin = gst_plugin_load_file(SOFTIMX_FILE, &error);
  if (plugin == nullptr) ADD_FAILURE() << error->message;
  g_clear_error(&error);
  if (plugin != nullptr) gst_object_unref(plugin);
  return plugin != nullptr;
}

// Catches a stand-in that takes the place of hardware, and one that withdraws before its own cached entries.
TEST(Plugin, LeavesNamesToHardware) {
  for (const char* name : {"imxv4l2videosrc", "imxvpuenc_h264", "imxipuvideotransform"}) {
    ASSERT_EQ(SupplierOf(name), "softimx");
    GstElement* element = gst_element_factory_make(name, nullptr);
    ASSERT_NE(element, nullptr) << name << " cannot be loaded through its cached entry";
    gst_object_unref(gst_object_ref_sink(element));
  }
  GstRegistry* registry = gst_registry_get();
  GstPlugin* scanned = gst_registry_find_plugin(registry, "softimx");
  gst_registry_remove_plugin(registry, scanned);
  ASSERT_EQ(SupplierOf("imxvpuenc_h264"), "");
  ASSERT_TRUE(gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "hardware", "hardware", RegisterHardware,
                                         "1", "LGPL", "hardware", "hardware", "hardware"));
  ASSERT_TRUE(LoadFromFile());
  EXPECT_EQ(SupplierOf("imxvpuenc_h264"), "hardware");
  EXPECT_EQ(SupplierOf("imxv4l2videosrc"), "softimx");
  gst_object_unref(scanned);
  // As it was, for the tests that follow in this process.
  GstPlugin* hardware = gst_registry_find_plugin(registry, "hardware");
  gst_registry_remove_plugin(registry, hardware);
  gst_object_unref(hardware);
  GstPlugin* loaded = gst_registry_find_plugin(registry, "softimx");
  gst_registry_remove_plugin(registry, loaded);
  gst_object_unref(loaded);
  ASSERT_TRUE(LoadFromFile());
  EXPECT_EQ(SupplierOf("imxvpuenc_h264"), "softimx");
}

}  // namespace
}  // namespace SoftImx::Test
