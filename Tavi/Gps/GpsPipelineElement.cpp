// The GPS receiver: its device and the ring of its fixes.
#include "Tavi/Gps/GpsPipelineElement.h"

#include "Tavi/Gps/GpsPipelineCbElement.h"
#include "Tavi/GstUtil/RingEntry.h"

namespace Tavi::Gps {

GpsPipelineElement::GpsPipelineElement(const GpsConfig& config, int ringSize)
    : GstGpsPipelineElement(config), IPipelineElement(ringSize) {}

GpsPipelineElement::~GpsPipelineElement() {
  GstGpsPipelineElement::Stop();
}

void GpsPipelineElement::SetFrame(GstBuffer* buffer) {
  if (GstUtil::AppendBuffer<GpsPipelineCbElement>(*this, buffer)) GstUtil::LogFirst("for gps");
}

}  // namespace Tavi::Gps
