// The live source behind a camera named "sim:NAME".
#pragma once

#include <gst/gst.h>

#include <string>

namespace SoftImx {

struct SceneSettings {
  /// Shown in the picture; decides its tint and skyline.
  std::string name;
  /// Frames a second as a fraction, both parts at least 1.
  int rateNumerator = 30;
  int rateDenominator = 1;
  /// Of the picture in pixels, even numbers of at least 16.
  int width = 1280;
  int height = 720;
  /// Buffers allocated at once, and how many frames the source may fall behind before it gives them up.
  int queueSize = 4;
  /// So long the camera stands still in every 40 s, in milliseconds; 0: never.
  int stallMs = 0;
  /// So long after each start it fails as a camera does that is pulled, in milliseconds; 0: never.
  int failMs = 0;
};

/// Takes a simulated camera's name apart: "NAME", "NAME@0.5" (delivers half of the rate that it is set to, as some do
/// at night), "NAME@1~4000" (stands still for 4 s in every 40), "NAME@1!5000" (is pulled 5 s after each
/// start). `settings` has the camera's own rate before and the delivered one behind. False when what stands behind the
/// name is no share from 0.1 to 2 or no time up to 30 s.
[[nodiscard]] bool ApplySceneName(const std::string& text, SceneSettings& settings);

/// A new floating scene source. It is no element of the registry: only VideoSource makes one.
///
/// A live GstPushSrc whose base class waits on the pipeline's clock, so that a state change interrupts it at once. One
/// streaming thread calls it. Frames are denominator / numerator seconds apart exactly, on a grid that begins a
/// millisecond behind a full second of CLOCK_REALTIME: sources of one pipeline thus share a grid (to the reading of two
/// clocks), whatever moment each was started at, and at whole rates the flash begins in the frame of the full second.
[[nodiscard]] GstElement* NewSceneSource(const SceneSettings& settings);

}  // namespace SoftImx
