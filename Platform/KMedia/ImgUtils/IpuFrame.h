// A frame that can be scaled into another one.
#pragma once

#include "KMedia/ImgUtils/KframeBuffer.h"

namespace KMedia::ImgUtils {

/// Renders one I420 frame. The record is borrowed. Thread-bound.
class IpuFrame {
 public:
  explicit IpuFrame(KframeBuffer* frame) : m_frame(frame) {}
  virtual ~IpuFrame() = default;

  /// Scales the whole frame into `target` (I420, its own width and height). False, and `target` untouched, when either
  /// record is null, empty or smaller than its width and height need.
  virtual bool RenderFrame(KframeBuffer* target);

  IpuFrame(const IpuFrame&) = delete;
  IpuFrame& operator=(const IpuFrame&) = delete;

 private:
  KframeBuffer* const m_frame;
};

}  // namespace KMedia::ImgUtils
