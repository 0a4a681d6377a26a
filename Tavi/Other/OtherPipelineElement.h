// The system metrics: their sampling and the ring of samples.
#pragma once

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/Other/GstOtherPipelineElement.h"

namespace Tavi::Other {

/// A ring of samples, one entry a second, filled on the timer's thread.
class OtherPipelineElement final : public GstOtherPipelineElement, public Kbase::Pipeline::IPipelineElement {
 public:
  OtherPipelineElement(const OtherConfig& config, int ringSize);
  ~OtherPipelineElement() override;

  void SetFrame(GstBuffer* buffer) override;
  void Start() override { GstOtherPipelineElement::Start(); }
  void Stop() override { GstOtherPipelineElement::Stop(); }
  /// Samples per second as configured.
  float GetFps() override { return static_cast<float>(GetRate()); }
};

}  // namespace Tavi::Other
