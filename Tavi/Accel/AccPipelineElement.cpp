// The accelerometer: its device and the ring of its blocks.
#include "Tavi/Accel/AccPipelineElement.h"

#include <memory>

#include "Tavi/Accel/AccPipelineCbElement.h"
#include "Tavi/GstUtil/GstRef.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Accel {

AccPipelineElement::AccPipelineElement(const AccConfig& config, int ringSize)
    : GstAccPipelineElement(config), IPipelineElement(ringSize) {}

AccPipelineElement::~AccPipelineElement() {
  GstAccPipelineElement::Stop();
}

void AccPipelineElement::SetFrame(GstBuffer* buffer) {
  if (buffer == nullptr) return;
  auto owned = GstUtil::GstRef<GstBuffer>::Adopt(buffer);
  const std::uint64_t id = GetCurrentFrameId() + 1;
  const auto entry = std::make_shared<AccPipelineCbElement>(id, owned.Get(), "acc");
  static_cast<void>(owned.Release());
  AddNext(entry);
  if (id == 0) Log::Info("Aquisition for acc has been started");
}

}  // namespace Tavi::Accel
