// The collector of the GPS receiver: the RMC sentence of each fix, and the highest speed.
#pragma once

#include <string>

#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace Tavi::Gps {

/// Writes, for each fix, the length of its RMC sentence (32-bit, the least significant byte first) and the sentence; a
/// fix without one has length 0.
class GpsPipelineCollect final : public PipelineCollect::PipelineCollect {
 public:
  GpsPipelineCollect(Kbase::Pipeline::IPipelineElement* element, bool cr);
  ~GpsPipelineCollect() override;

  void Init(Tavi::PipelineCollect::PipelineCollectConfig& config) override;
  void Reset() override;
  void CopyTo(CollectBase* target) override;
  void Report(Tavi::PipelineCollect::PipelineCollectOutput& output) const override;
  bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) override;
  /// The fix's quality (FixQuality.h), for which the file has no field.
  std::string Annotate(const Kbase::Pipeline::IPipelineCbElement* entry) const override;

  /// Highest speed of a valid fix written since Init, in knots; -1 when there was none. Read after the collect.
  [[nodiscard]] double GetMaxSpeed() const { return m_maxSpeed; }

 private:
  static constexpr double NoSpeed = -1.0;
  double m_maxSpeed = NoSpeed;
};

}  // namespace Tavi::Gps
