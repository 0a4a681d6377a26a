// The system metrics: their sampling and the ring of samples.
#include "Tavi/Other/OtherPipelineElement.h"

#include "Tavi/GstUtil/RingEntry.h"
#include "Tavi/Other/OtherPipelineCbElement.h"

namespace Tavi::Other {

OtherPipelineElement::OtherPipelineElement(const OtherConfig& config, int ringSize)
    : GstOtherPipelineElement(config), IPipelineElement(ringSize) {}

OtherPipelineElement::~OtherPipelineElement() {
  GstOtherPipelineElement::Stop();
}

void OtherPipelineElement::SetFrame(GstBuffer* buffer) {
  if (GstUtil::AppendBuffer<OtherPipelineCbElement>(*this, buffer)) GstUtil::LogFirst("(other)");
}

}  // namespace Tavi::Other
