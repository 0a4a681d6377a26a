// The collector of a camera's still.
#include "Tavi/EventCollect/ThumbnailCollect.h"

#include <memory>
#include <string>

#include "KMedia/ImgUtils/Thumbnail.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/RingTime.h"
#include "Tavi/Video/GstIpuFrame.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace Tavi::PipelineCollect {

using Kbase::Pipeline::IPipelineElement;
using Video::GstIpuFrame;
using Video::VideoPipelineElement;

namespace {

constexpr unsigned int Width = 280;
constexpr unsigned int Height = 160;

std::string BuildThreadName(CameraType camera, bool cr) {
  return std::string(camera == CameraType::Camera0 ? "COLLECT-THUMB1" : "COLLECT-THUMB0") + (cr ? "-CR" : "");
}

}  // namespace

ThumbnailCollect::ThumbnailCollect(IPipelineElement* element, CameraType camera, bool cr)
    : PipelineCollect(element, GetThumbnailPipelineCollectType(camera), BuildThreadName(camera, cr)) {}

ThumbnailCollect::~ThumbnailCollect() {
  Stop();
}

PipelineCollectType ThumbnailCollect::GetThumbnailPipelineCollectType(CameraType camera) {
  return camera == CameraType::Camera0 ? PipelineCollectType::ThumbnailCamera1 : PipelineCollectType::ThumbnailCamera0;
}

bool ThumbnailCollect::Write(FILE* /*file*/, Kbase::Pipeline::IPipelineCbElement* /*entry*/) {
  return true;
}

void ThumbnailCollect::Init(PipelineCollectConfig& config) {
  m_frame.reset();
  PipelineCollect::Init(config);
}

/// The held picture, else the camera's newest one; null when it delivers none.
std::shared_ptr<GstIpuFrame> ThumbnailCollect::TakeFrame() {
  if (m_frame) return std::move(m_frame);
  // The share keeps the camera while its frame is waited for.
  const auto camera = std::dynamic_pointer_cast<VideoPipelineElement>(GetRing());
  // The raw frame that a silent camera still holds is as old as its silence.
  if (!camera || GetAge(*camera) > SilenceLimit) return nullptr;
  const auto deadline = std::chrono::steady_clock::now() + SilenceLimit;
  const auto giveUp = [&] { return ShouldStop() || std::chrono::steady_clock::now() >= deadline; };
  return std::shared_ptr<GstIpuFrame>(camera->GetIpuFrame(giveUp));
}

void ThumbnailCollect::Collect() {
  m_collected = false;
  const bool hasCamera = std::dynamic_pointer_cast<VideoPipelineElement>(GetRing()) != nullptr;
  const auto frame = TakeFrame();
  auto* raw = frame ? frame->GetRawFrame() : nullptr;
  if (raw == nullptr) {
    if (hasCamera && !ShouldStop()) Log::Warning(m_path + ": its camera delivers no frame; there is no thumbnail");
    return;
  }
  KMedia::ImgUtils::CreateThumbnail(raw, m_path.c_str(), Width, Height);
  frame->ClearRawFrame();
  // What counts is a picture that is there, not that one was tried.
  m_collected = IsPathAvailable();
}

}  // namespace Tavi::PipelineCollect
