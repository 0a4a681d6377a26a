// One raw camera frame of GStreamer as a frame of the media library.
#include "Tavi/Video/GstIpuFrame.h"

#include <utility>

#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::Video {

using KMedia::ImgUtils::KframeBuffer;

bool GstIpuFrame::ValidBuffer(GstBuffer* buffer) {
  return GstUtil::IsUsable(buffer);
}

GstIpuFrame* GstIpuFrame::Create(GstBuffer* buffer, int width, int height) {
  if (!ValidBuffer(buffer)) return nullptr;
  auto mapInfo = std::make_unique<GstMapInfo>();
  if (!gst_buffer_map(buffer, mapInfo.get(), GST_MAP_READ)) {
    gst_buffer_unref(buffer);
    return nullptr;
  }
  auto frame = std::make_unique<KframeBuffer>();
  frame->data = mapInfo->data;
  frame->size = mapInfo->size;
  frame->width = static_cast<std::uint16_t>(width);
  frame->height = static_cast<std::uint16_t>(height);
  return new GstIpuFrame(buffer, std::move(mapInfo), std::move(frame));
}

GstIpuFrame::GstIpuFrame(GstBuffer* buffer, std::unique_ptr<GstMapInfo> mapInfo,
                         std::unique_ptr<KframeBuffer> frameBuffer)
    : IpuFrame(frameBuffer.get()),
      m_buffer(buffer),
      m_mapInfo(std::move(mapInfo)),
      m_frameBuffer(std::move(frameBuffer)) {}

GstIpuFrame::~GstIpuFrame() {
  gst_buffer_unmap(m_buffer, m_mapInfo.get());
  gst_buffer_unref(m_buffer);
}

bool GstIpuFrame::RenderFrame(KframeBuffer* target) {
  if (!ValidBuffer(m_buffer)) return false;
  const auto hold = GstUtil::GstRef<GstBuffer>::Share(m_buffer);
  return IpuFrame::RenderFrame(target);
}

KframeBuffer* GstIpuFrame::GetRawFrame() {
  if (!ValidBuffer(m_buffer)) return nullptr;
  gst_buffer_ref(m_buffer);
  return m_frameBuffer.get();
}

void GstIpuFrame::ClearRawFrame() {
  if (ValidBuffer(m_buffer)) gst_buffer_unref(m_buffer);
}

}  // namespace Tavi::Video
