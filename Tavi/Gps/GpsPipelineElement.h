// The GPS receiver: its device and the ring of its fixes.
#pragma once

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/Gps/GstGpsPipelineElement.h"

namespace Tavi::Gps {

/// A ring of fixes, one entry an epoch, filled on the device's thread.
class GpsPipelineElement final : public GstGpsPipelineElement, public Kbase::Pipeline::IPipelineElement {
 public:
  GpsPipelineElement(const GpsConfig& config, int ringSize);
  ~GpsPipelineElement() override;

  void SetFrame(GstBuffer* buffer) override;
  void Start() override { GstGpsPipelineElement::Start(); }
  void Stop() override { GstGpsPipelineElement::Stop(); }
  /// Fixes per second as configured.
  float GetFps() override { return static_cast<float>(GetRate()); }
};

}  // namespace Tavi::Gps
