// Who takes the recorder's records as they come, beside the messages for browsers.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace Tavi::Web {

/// What the hub can tell apart.
enum class LiveStream : std::uint8_t { Camera0, Camera1, Sound, Gps, Acceleration, Other };
inline constexpr std::size_t LiveStreams = 6;

/// One access unit (Annex B, an IDR picture with its parameter sets) or the MP3 frames that came together. Immutable.
struct LiveUnit {
  LiveStream stream{};
  bool isKeyFrame = false;
  /// The recorder has left something out before it.
  bool isAfterGap = false;
  /// On the time line that all streams share, in nanoseconds.
  std::int64_t timeNs = 0;
  std::vector<std::uint8_t> bytes;
};

/// Takes cameras and sound.
class RecordSink {
 public:
  virtual ~RecordSink() = default;
  /// On the hub's thread, which everybody waits for: must not block.
  virtual void Take(const std::shared_ptr<const LiveUnit>& unit) noexcept = 0;
};

}  // namespace Tavi::Web
