// A raw frame in memory.
#pragma once

#include <cstddef>
#include <cstdint>

namespace KMedia::ImgUtils {

/// Describes the pixels of one I420 frame without owning them. The planes follow each other as GStreamer lays them out
/// by default: luma rows are rounded up to 4 bytes, chroma rows are half of the even width rounded up to 4 bytes,
/// planes have an even number of luma rows.
struct KframeBuffer {
  std::uint8_t* data = nullptr;
  /// Address for the image processing unit; 0 for memory that only the processor sees.
  std::uintptr_t physicalAddress = 0;
  /// Bytes at `data`.
  std::size_t size = 0;
  /// 0.
  std::uintptr_t reserved = 0;
  /// In pixels.
  std::uint16_t width = 0;
  std::uint16_t height = 0;
  /// 0.
  std::uintptr_t flags = 0;
};

/// Where the planes of an I420 frame lie. All in bytes.
struct I420Layout {
  I420Layout(int width, int height);
  int lumaStride;
  int chromaStride;
  std::size_t uOffset;
  std::size_t vOffset;
  std::size_t size;
};

}  // namespace KMedia::ImgUtils
