// The system metrics: their sampling and the ring of samples.
#include "Tavi/Other/OtherPipelineElement.h"

#include <memory>

#include "Tavi/GstUtil/Log.h"
#include "Tavi/Other/OtherPipelineCbElement.h"

namespace Tavi::Other {

OtherPipelineElement::OtherPipelineElement(const OtherConfig& config, int ringSize)
    : GstOtherPipelineElement(config), IPipelineElement(ringSize) {}

OtherPipelineElement::~OtherPipelineElement() {
  GstOtherPipelineElement::Stop();
}

void OtherPipelineElement::SetFrame(GstBuffer* buffer) {
  if (buffer == nullptr) return;
  const std::uint64_t id = GetCurrentFrameId() + 1;
  AddNext(std::make_shared<OtherPipelineCbElement>(id, buffer));
  if (id == 0) Log::Info("Aquisition (other) has been started");
}

}  // namespace Tavi::Other
