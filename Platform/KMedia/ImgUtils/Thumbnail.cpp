// Scales a raw frame with libyuv and encodes it with TurboJPEG.
#include "KMedia/ImgUtils/Thumbnail.h"

#include <turbojpeg.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "KMedia/ImgUtils/IpuFrame.h"
#include "Kbase/Klog/Logger.h"
#include "Ksystem/FileUtils/AsideFile.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace KMedia::ImgUtils {
namespace {

constexpr int Quality = 80;
/// The longest side that the JPEG library takes (JPEG_MAX_DIMENSION).
constexpr unsigned int MaxSide = 65500;

using RangeTable = std::array<std::uint8_t, 256>;

/// Stretches values of video range (`steps` wide) to the full range, `zero` becoming `fullZero`.
constexpr RangeTable MakeRangeTable(int zero, int fullZero, int steps) {
  RangeTable table{};
  for (int value = 0; value < 256; ++value) {
    const double full = fullZero + (value - zero) * 255.0 / steps;
    table[static_cast<std::size_t>(value)] = static_cast<std::uint8_t>(std::clamp(full, 0.0, 255.0) + 0.5);
  }
  return table;
}

/// Cameras deliver 16 to 235 and 16 to 240 (ITU-R BT.601), a JPEG holds 0 to 255 (ITU-T T.871): taken over as they are,
/// black and white would both be grey.
constexpr RangeTable FullLuma = MakeRangeTable(16, 0, 219);
constexpr RangeTable FullChroma = MakeRangeTable(128, 128, 224);

bool Fail(const std::string& path, const std::string& reason) {
  Kbase::Klog::Logger::GetInstance().Error("Kmedia", "cannot make the thumbnail " + path + ": " + reason);
  return false;
}

/// A frame that owns its pixels.
struct OwnFrame {
  OwnFrame(unsigned int width, unsigned int height)
      : layout(static_cast<int>(width), static_cast<int>(height)), pixels(layout.size) {
    record.data = pixels.data();
    record.size = pixels.size();
    record.width = static_cast<std::uint16_t>(width);
    record.height = static_cast<std::uint16_t>(height);
  }

  void StretchToFullRange() {
    const auto apply = [](std::span<std::uint8_t> plane, const RangeTable& table) {
      std::transform(plane.begin(), plane.end(), plane.begin(), [&](std::uint8_t value) { return table[value]; });
    };
    apply(std::span(pixels).first(layout.uOffset), FullLuma);
    apply(std::span(pixels).subspan(layout.uOffset), FullChroma);
  }

  const I420Layout layout;
  std::vector<std::uint8_t> pixels;
  KframeBuffer record;
};

class Encoder {
 public:
  Encoder() : m_handle(tjInitCompress()) {}
  ~Encoder() {
    tjFree(m_jpeg);
    if (m_handle != nullptr) tjDestroy(m_handle);
  }
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  bool Encode(const OwnFrame& frame, unsigned int width, unsigned int height) {
    const std::uint8_t* data = frame.record.data;
    const std::uint8_t* planes[] = {data, data + frame.layout.uOffset, data + frame.layout.vOffset};
    const int strides[] = {frame.layout.lumaStride, frame.layout.chromaStride, frame.layout.chromaStride};
    return m_handle != nullptr &&
           tjCompressFromYUVPlanes(m_handle, planes, static_cast<int>(width), strides, static_cast<int>(height),
                                   TJSAMP_420, &m_jpeg, &m_size, Quality, TJFLAG_ACCURATEDCT) == 0;
  }
  /// Valid while the encoder lives.
  [[nodiscard]] std::span<const std::uint8_t> GetJpeg() const { return {m_jpeg, m_size}; }
  [[nodiscard]] std::string GetError() const { return tjGetErrorStr2(m_handle); }

 private:
  const tjhandle m_handle;
  unsigned char* m_jpeg = nullptr;
  unsigned long m_size = 0;
};

/// Gives the file its name once it is whole.
bool WriteWhole(const std::string& path, std::span<const std::uint8_t> bytes) {
  Ksystem::FileUtils::AsideFile file(path);
  if (file.Open() && Ksystem::FileUtils::WriteAll(file.GetFd(), bytes.data(), bytes.size()) && file.Commit())
    return true;
  return Fail(path, std::strerror(errno));
}

}  // namespace

bool CreateThumbnail(KframeBuffer* frame, const char* path, unsigned int width, unsigned int height) {
  if (path == nullptr) return Fail("", "it has no name");
  if (width == 0 || height == 0 || width > MaxSide || height > MaxSide) return Fail(path, "no JPEG has such a size");
  // The encoder reads luma in pairs of columns and rows, also where the picture ends within one.
  OwnFrame small(width + width % 2, height + height % 2);
  if (!IpuFrame(frame).RenderFrame(&small.record)) return Fail(path, "the frame is not whole");
  small.StretchToFullRange();
  Encoder encoder;
  if (!encoder.Encode(small, width, height)) return Fail(path, encoder.GetError());
  return WriteWhole(path, encoder.GetJpeg());
}

}  // namespace KMedia::ImgUtils
