// The collector of the system metrics: a JSON array.
#pragma once

#include "Kbase/Json/Json.h"
#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace Tavi::Other {

/// Gathers the window's samples and writes them behind the last one, as one JSON array of objects with "cpu_usage" in
/// percent and "temperature" in degrees Celsius.
class OtherPipelineCollect final : public PipelineCollect::PipelineCollect {
 public:
  OtherPipelineCollect(Kbase::Pipeline::IPipelineElement* element, bool cr);
  ~OtherPipelineCollect() override;

  void Init(Tavi::PipelineCollect::PipelineCollectConfig& config) override;
  void Reset() override;
  bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) override;
  bool WriteFooter(FILE* file) override;

 private:
  Kbase::Json::Array m_samples;
};

}  // namespace Tavi::Other
