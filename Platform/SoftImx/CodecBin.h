// What the elements have in common that are a bin around one codec of another plug-in.
#pragma once

#include <gst/gst.h>

namespace SoftImx {

/// The codec's name in its bin.
inline constexpr const char* CodecName = "codec";

/// The codec with a reference for the caller. Null, with an error on the bus that names `factory`, when the bin could
/// not be given one.
[[nodiscard]] GstElement* GetCodec(GstElement* self, const char* factory);

/// Shows the child's pad as the bin's own, of the bin's template of the same name.
void AddGhostPad(GstElement* self, GstElement* child, const char* name);

/// Adds a template of the pad `name` to the class.
void AddPadTemplate(GstElementClass* klass, const char* name, GstPadDirection direction, const char* caps);

/// `type` is any combination of GstPadProbeType.
void AddProbe(GstElement* child, const char* padName, int type, GstPadProbeCallback callback, gpointer self);

}  // namespace SoftImx
