// The element "imxipuvideotransform": crops, scales and converts raw video in one pass.
#pragma once

#include <glib-object.h>

namespace SoftImx {

/// A GstVideoFilter. The output caps say the size and the format; the crop rectangle comes with each buffer as a
/// GstVideoCropMeta, which is applied and dropped. A buffer with nothing to do to it is passed on as it is.
///
/// Runs on the thread that pushes; has no thread and no settings of its own.
[[nodiscard]] GType VideoTransformType();

}  // namespace SoftImx
