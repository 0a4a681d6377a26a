// The accelerometer: its device and the ring of its blocks.
#pragma once

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/Accel/GstAccPipelineElement.h"

namespace Tavi::Accel {

/// A ring of sample blocks, one entry each, filled on the device's thread.
class AccPipelineElement final : public GstAccPipelineElement, public Kbase::Pipeline::IPipelineElement {
 public:
  AccPipelineElement(const AccConfig& config, int ringSize);
  ~AccPipelineElement() override;

  void SetFrame(GstBuffer* buffer) override;
  void Start() override { GstAccPipelineElement::Start(); }
  void Stop() override { GstAccPipelineElement::Stop(); }
  float GetFps() override { return static_cast<float>(GetRate()); }
};

}  // namespace Tavi::Accel
