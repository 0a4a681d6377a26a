// The elements of one camera's branch, made, set, added and linked.
#pragma once

#include <gst/gst.h>

#include <vector>

#include "Tavi/Video/VideoConfig.h"

namespace Tavi::Video {

/// The elements that the camera's element talks to; all belong to the bin that they were added to.
struct CameraBranch {
  GstElement* source = nullptr;
  GstElement* rawSink = nullptr;
  GstElement* encodedSink = nullptr;
  /// The preview's queue and sink; null when there is no preview.
  GstElement* previewQueue = nullptr;
  GstElement* previewSink = nullptr;
  /// All of them, the source first.
  std::vector<GstElement*> elements;

  /// Builds the branch in `bin`:
  ///
  ///     source [-> transform -> caps] -> tee -> queue -> raw sink
  ///                                       |---> queue -> encoder -> encoded sink
  ///                                       |---> [queue -> rate -> transform -> caps -> preview sink]
  ///
  /// With the live stream a second tee behind the encoder feeds the encoded sink and a GDP server, each through a
  /// queue. When GStreamer has no element of a needed name, one line says which, nothing is added and all members are
  /// null; where one is missing that only the live stream or the preview needs, or the stream's port is taken, one line
  /// says so and that leg is left out.
  static CameraBranch Build(GstBin* bin, const VideoConfig& config);
};

}  // namespace Tavi::Video
