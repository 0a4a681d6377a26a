// The GPS receiver: its device and the ring of its fixes.
#include "Tavi/Gps/GpsPipelineElement.h"

#include <memory>

#include "Tavi/Gps/GpsPipelineCbElement.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Gps {

GpsPipelineElement::GpsPipelineElement(const GpsConfig& config, int ringSize)
    : GstGpsPipelineElement(config), IPipelineElement(ringSize) {}

GpsPipelineElement::~GpsPipelineElement() {
  GstGpsPipelineElement::Stop();
}

void GpsPipelineElement::SetFrame(GstBuffer* buffer) {
  if (buffer == nullptr) return;
  const std::uint64_t id = GetCurrentFrameId() + 1;
  AddNext(std::make_shared<GpsPipelineCbElement>(id, buffer));
  if (id == 0) Log::Info("Aquisition for gps has been started");
}

}  // namespace Tavi::Gps
