// One raw camera frame of GStreamer as a frame of the media library.
#include "Tavi/Video/GstIpuFrame.h"

#include <gst/video/video.h>

#include <algorithm>
#include <utility>

#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::Video {

using KMedia::ImgUtils::KframeBuffer;
using KMedia::ImgUtils::PictureSize;

namespace {

/// True when the pixels lie as the media library expects them: hardware pads lines and planes, and says so beside them.
bool IsPlainI420(GstBuffer* buffer, const GstVideoInfo& info) {
  if (GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_I420) return false;
  const GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
  if (meta == nullptr) return true;
  const guint planes = GST_VIDEO_INFO_N_PLANES(&info);
  return meta->n_planes == planes && std::equal(meta->offset, meta->offset + planes, info.offset) &&
         std::equal(meta->stride, meta->stride + planes, info.stride);
}

GstVideoInfo DescribeI420(const GstVideoInfo& from) {
  GstVideoInfo to;
  gst_video_info_set_format(&to, GST_VIDEO_FORMAT_I420, static_cast<guint>(GST_VIDEO_INFO_WIDTH(&from)),
                            static_cast<guint>(GST_VIDEO_INFO_HEIGHT(&from)));
  if (GST_VIDEO_INFO_IS_YUV(&from)) {
    to.colorimetry = from.colorimetry;
    to.chroma_site = from.chroma_site;
  }
  return to;
}

/// The picture as plain I420 in a buffer of its own; null when it cannot be converted.
GstBuffer* ConvertToI420(GstBuffer* buffer, const GstVideoInfo& info) {
  GstVideoInfo plain = DescribeI420(info);
  GstVideoFrame from;
  GstVideoFrame to;
  if (!gst_video_frame_map(&from, &info, buffer, GST_MAP_READ)) return nullptr;
  auto converted = GstUtil::GstRef<GstBuffer>::Adopt(gst_buffer_new_allocate(nullptr, plain.size, nullptr));
  GstVideoConverter* converter = gst_video_converter_new(&info, &plain, nullptr);
  bool done = false;
  if (converter != nullptr && converted && gst_video_frame_map(&to, &plain, converted.Get(), GST_MAP_WRITE)) {
    gst_video_converter_frame(converter, &from, &to);
    gst_video_frame_unmap(&to);
    done = true;
  }
  if (converter != nullptr) gst_video_converter_free(converter);
  gst_video_frame_unmap(&from);
  return done ? converted.Release() : nullptr;
}

}  // namespace

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

GstIpuFrame* GstIpuFrame::Create(GstSample* sample, PictureSize configured) {
  GstBuffer* buffer = gst_sample_get_buffer(sample);
  if (!ValidBuffer(buffer)) return nullptr;
  const GstCaps* caps = gst_sample_get_caps(sample);
  GstVideoInfo info;
  if (caps == nullptr || !gst_video_info_from_caps(&info, caps)) {
    return Create(gst_buffer_ref(buffer), configured.width, configured.height);
  }
  GstBuffer* plain = IsPlainI420(buffer, info) ? gst_buffer_ref(buffer) : ConvertToI420(buffer, info);
  return plain == nullptr ? nullptr : Create(plain, GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info));
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
