// What the elements have in common that are a bin around one codec of another plug-in.
#include "SoftImx/CodecBin.h"

namespace SoftImx {

GstElement* GetCodec(GstElement* self, const char* factory) {
  GstElement* codec = gst_bin_get_by_name(GST_BIN(self), CodecName);
  if (codec == nullptr) {
    GST_ELEMENT_ERROR(self, CORE, MISSING_PLUGIN, ("The encoder needs the element \"%s\", which is missing.", factory),
                      (nullptr));
  }
  return codec;
}

void AddGhostPad(GstElement* self, GstElement* child, const char* name) {
  GstPad* target = gst_element_get_static_pad(child, name);
  GstPadTemplate* padTemplate = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), name);
  gst_element_add_pad(self, gst_ghost_pad_new_from_template(name, target, padTemplate));
  gst_object_unref(target);
}

void AddPadTemplate(GstElementClass* klass, const char* name, GstPadDirection direction, const char* caps) {
  GstCaps* parsed = gst_caps_from_string(caps);
  gst_element_class_add_pad_template(klass, gst_pad_template_new(name, direction, GST_PAD_ALWAYS, parsed));
  gst_caps_unref(parsed);
}

void AddProbe(GstElement* child, const char* padName, int type, GstPadProbeCallback callback, gpointer self) {
  GstPad* pad = gst_element_get_static_pad(child, padName);
  gst_pad_add_probe(pad, GstPadProbeType(type), callback, self, nullptr);
  gst_object_unref(pad);
}

}  // namespace SoftImx
