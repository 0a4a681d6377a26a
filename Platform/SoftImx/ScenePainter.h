// Paints the simulated camera's picture for a moment of wall time.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace SoftImx {

/// One colour of a picture in video range.
struct Yuv {
  int y;
  int u;
  int v;
};

/// The three planes of a writable I420 picture of the painter's size, borrowed for one call.
struct I420Planes {
  std::uint8_t* data[3];
  int stride[3];
};

/// The picture of one simulated camera: a street at dusk whose tint and skyline come from the camera's name, the name,
/// a car that crosses, a running clock, and a white flash at each full second.
///
/// What stands still is painted once at construction, with three pictures of grain; a frame costs one copy and some 200
/// small rectangles. Every pixel of it is written by libyuv. Immutable after construction, so reentrant.
class ScenePainter {
 public:
  /// The street's own size: other pictures show all of it, stretched to theirs.
  static constexpr int Width = 1280;
  static constexpr int Height = 720;
  static constexpr std::int64_t FlashNs = 100'000'000;

  /// Paints pictures of `width` x `height` pixels, even numbers of at least 16.
  ScenePainter(std::string_view name, int width, int height);

  /// Paints the frame that shows `wallNs`, nanoseconds since 1970 UTC. The clock shows local time.
  void Paint(const I420Planes& picture, std::int64_t wallNs) const;

  /// Whether the frame at `wallNs` is white: within the first 100 ms of a full second.
  [[nodiscard]] static bool IsFlash(std::int64_t wallNs);

 private:
  int m_width;
  int m_height;
  std::vector<std::uint8_t> m_background;
  /// Its luma with different grain each, shown in turn.
  std::array<std::vector<std::uint8_t>, 3> m_grainedLuma;
  Yuv m_carColour;
};

}  // namespace SoftImx
