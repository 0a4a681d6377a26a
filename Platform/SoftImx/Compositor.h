// The element "imxipucompositor": several I420 pictures on one.
#pragma once

#include <glib-object.h>

namespace SoftImx {

/// A video aggregator that scales the picture of each request pad into the pad's rectangle, over a plain background.
///
/// Waiting for inputs, live deadlines and the rate are the base class's; its own thread does the work. The rectangles
/// and the background may change while it runs.
[[nodiscard]] GType CompositorType();

}  // namespace SoftImx
