// One raw camera frame of GStreamer as a frame of the media library.
#pragma once

#include <gst/gst.h>

#include <memory>

#include "KMedia/ImgUtils/IpuFrame.h"
#include "KMedia/ImgUtils/PictureSize.h"

namespace Tavi::Video {

/// Owns one reference to the buffer and its read mapping. Thread-bound.
class GstIpuFrame final : public KMedia::ImgUtils::IpuFrame {
 public:
  /// A frame over `buffer` (I420, `width` x `height` pixels), taking over the caller's reference. Null when the buffer
  /// is not valid or cannot be mapped. The caller owns the frame.
  static GstIpuFrame* Create(GstBuffer* buffer, int width, int height);
  /// A frame over the sample's picture, borrowed for the call: in the format that its caps name, with the lines and
  /// planes where the buffer itself says. I420 in its plain layout is not copied, everything else is converted to it.
  /// `configured` counts where the caps do not tell. Null when there is nothing to convert from.
  static GstIpuFrame* Create(GstSample* sample, KMedia::ImgUtils::PictureSize configured);
  /// True when the buffer is there and still referenced.
  static bool ValidBuffer(GstBuffer* buffer);

  ~GstIpuFrame() override;

  /// Scales the frame into `target`.
  bool RenderFrame(KMedia::ImgUtils::KframeBuffer* target) override;
  /// The record over the mapped pixels, null for an invalid buffer. Adds a reference to the buffer that ClearRawFrame
  /// must give back.
  KMedia::ImgUtils::KframeBuffer* GetRawFrame();
  void ClearRawFrame();

 private:
  GstIpuFrame(GstBuffer* buffer, std::unique_ptr<GstMapInfo> mapInfo,
              std::unique_ptr<KMedia::ImgUtils::KframeBuffer> frameBuffer);

  GstBuffer* const m_buffer;
  const std::unique_ptr<GstMapInfo> m_mapInfo;
  const std::unique_ptr<KMedia::ImgUtils::KframeBuffer> m_frameBuffer;
};

}  // namespace Tavi::Video
