// Where GStreamer finds the software elements that came with this program.
#pragma once

namespace Tavi::Recorder {

/// Adds the plug-in directory beside the program ("../lib/gstreamer-1.0") to GStreamer's search path. Call it before
/// GStreamer is initialised and before any thread runs. On the unit there is no such directory and nothing changes.
void AddPluginPath();

}  // namespace Tavi::Recorder
