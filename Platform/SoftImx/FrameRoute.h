// Which frames of a stream are encoded, and for which the camera's own encoding is taken.
#pragma once

#include <gst/gst.h>

namespace SoftImx {

/// Holds a stream to its grid of IDR frames: the first and each `interval`-th after it.
///
/// While the camera's own access units (AccessUnit.h) keep to the grid they are taken, beginning with its next IDR
/// frame. From the first place of the grid where there is none on, all frames are encoded: a place of the grid is where
/// an encoder may begin, and the stream does not change back and forth. Belongs to the streaming thread.
class FrameRoute {
 public:
  enum class Step {
    Encode,
    /// The camera's unit is the frame's encoding.
    TakeUnit,
    /// The frame has no place in the stream: it comes before the camera's first IDR frame, or its unit was lost.
    Skip,
  };

  /// `interval` at least 1. The next frame is the first.
  void Restart(unsigned interval);
  [[nodiscard]] Step Take(GstBuffer* frame);
  /// Whether the frame that was taken last is one of the grid's.
  [[nodiscard]] bool IsOnGrid() const { return m_count % m_interval == 1 % m_interval; }
  /// Whether the frame that was taken last is the first to be encoded of a stream that began with the camera's units.
  [[nodiscard]] bool HasJustLeft() const { return m_hasJustLeft; }

 private:
  enum class Mode { Open, Taking, Encoding };

  [[nodiscard]] Mode Begin(GstBuffer* unit);

  unsigned m_interval = 1;
  /// Frames of the stream so far.
  unsigned m_count = 0;
  unsigned m_skipped = 0;
  Mode m_mode = Mode::Open;
  bool m_hasJustLeft = false;
};

}  // namespace SoftImx
