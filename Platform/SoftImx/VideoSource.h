// The element "imxv4l2videosrc": a camera, or a simulated one, as live I420 of the asked size.
#pragma once

#include <glib-object.h>

namespace SoftImx {

/// A bin with a ghost pad "src". From NULL to READY it builds what its device asks for: a SceneSource for "sim:NAME",
/// v4l2src in the device's best mode, with what brings its pictures to the frames, for anything else (CaptureChain).
/// Back in NULL it is empty again.
///
/// Properties may be set on any thread; those of the device, the rate and the size count from the next NULL to READY,
/// the crop rectangle from the next frame. A device that is missing or fails posts one ERROR message that names it and
/// delivers nothing: a scene never takes a camera's place.
[[nodiscard]] GType VideoSourceType();

}  // namespace SoftImx
