// One camera's pictures as fragmented MP4, as browsers take it.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace Tavi::Web {

/// What is encoded already becomes an init segment and fragments ("moof" and "mdat", ISO/IEC 14496-12) by libavformat's
/// mov muxer; nothing is kept of what was given out. Thread-bound.
class FragmentMuxer {
 public:
  struct Video {
    /// Annex B, each with its start code.
    std::span<const std::uint8_t> parameterSets;
    int width = 0;
    int height = 0;
  };
  static constexpr int TicksPerSecond = 90'000;

  /// Null, with a reason in `problem`, when libavformat does not take the stream.
  static std::unique_ptr<FragmentMuxer> Open(const Video& video, std::string& problem);
  ~FragmentMuxer();
  FragmentMuxer(const FragmentMuxer&) = delete;
  FragmentMuxer& operator=(const FragmentMuxer&) = delete;

  [[nodiscard]] const std::vector<std::uint8_t>& GetInit() const { return m_init; }
  /// One picture of the next fragment, `bytes` borrowed for the call. Times in ticks, not
  /// negative, `time` later than that of the one before.
  [[nodiscard]] bool Add(std::span<const std::uint8_t> bytes, std::int64_t time, std::int64_t duration,
                         bool isKeyFrame);
  /// What was added since the last fragment; empty when that was nothing, or could not be written.
  std::vector<std::uint8_t> TakeFragment();

 private:
  FragmentMuxer() = default;
  bool Prepare(std::string& problem);
  bool WriteInit(std::string& problem);
  std::vector<std::uint8_t> TakeOutput();

  AVFormatContext* m_context = nullptr;
  /// The context's own.
  AVStream* m_stream = nullptr;
  AVPacket* m_packet = nullptr;
  std::vector<std::uint8_t> m_init;
};

}  // namespace Tavi::Web
