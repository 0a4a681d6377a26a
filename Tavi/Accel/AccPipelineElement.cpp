// The accelerometer: its device and the ring of its blocks.
#include "Tavi/Accel/AccPipelineElement.h"

#include "Tavi/Accel/AccPipelineCbElement.h"
#include "Tavi/GstUtil/RingEntry.h"

namespace Tavi::Accel {

AccPipelineElement::AccPipelineElement(const AccConfig& config, int ringSize)
    : GstAccPipelineElement(config), IPipelineElement(ringSize) {}

AccPipelineElement::~AccPipelineElement() {
  GstAccPipelineElement::Stop();
}

void AccPipelineElement::SetFrame(GstBuffer* buffer) {
  if (GstUtil::AppendBuffer<AccPipelineCbElement>(*this, buffer, "acc")) GstUtil::LogFirst("for acc");
}

}  // namespace Tavi::Accel
