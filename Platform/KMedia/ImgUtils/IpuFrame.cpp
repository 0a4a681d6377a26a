// A frame that can be scaled into another one.
#include "KMedia/ImgUtils/IpuFrame.h"

#include <libyuv.h>

namespace KMedia::ImgUtils {
namespace {

constexpr int RoundUp(int value, int multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

bool IsWhole(const KframeBuffer* frame) {
  return frame != nullptr && frame->data != nullptr && frame->width > 0 && frame->height > 0 &&
         frame->size >= I420Layout(frame->width, frame->height).size;
}

}  // namespace

I420Layout::I420Layout(int width, int height)
    : lumaStride(RoundUp(width, 4)), chromaStride(RoundUp(RoundUp(width, 2) / 2, 4)) {
  const auto lumaRows = static_cast<std::size_t>(RoundUp(height, 2));
  uOffset = static_cast<std::size_t>(lumaStride) * lumaRows;
  vOffset = uOffset + static_cast<std::size_t>(chromaStride) * lumaRows / 2;
  size = vOffset + static_cast<std::size_t>(chromaStride) * lumaRows / 2;
}

bool IpuFrame::RenderFrame(KframeBuffer* target) {
  if (!IsWhole(m_frame) || !IsWhole(target)) return false;
  const I420Layout from(m_frame->width, m_frame->height);
  const I420Layout to(target->width, target->height);
  return libyuv::I420Scale(m_frame->data, from.lumaStride, m_frame->data + from.uOffset, from.chromaStride,
                           m_frame->data + from.vOffset, from.chromaStride, m_frame->width, m_frame->height,
                           target->data, to.lumaStride, target->data + to.uOffset, to.chromaStride,
                           target->data + to.vOffset, to.chromaStride, target->width, target->height,
                           libyuv::kFilterBox) == 0;
}

}  // namespace KMedia::ImgUtils
