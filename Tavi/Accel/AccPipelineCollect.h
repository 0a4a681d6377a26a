// The collector of the accelerometer: smoothed samples as native bytes, and the highest acceleration.
#pragma once

#include <atomic>
#include <cstdint>

#include "Tavi/Accel/AccDataPak.h"
#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace Tavi::Accel {

/// Writes for each entry the number 30 (four bytes, the least significant first) and thirty native bytes, X, Y, Z, X
/// ...
///
/// In the unit's mounting the first axis stands upright and reads -1 g at rest. One g is added to it for the peak,
/// which so leaves gravity out, and two g for the file.
class AccPipelineCollect final : public PipelineCollect::PipelineCollect {
 public:
  AccPipelineCollect(Kbase::Pipeline::IPipelineElement* element, bool cr);
  ~AccPipelineCollect() override;

  void Init(Tavi::PipelineCollect::PipelineCollectConfig& config) override;
  void Reset() override;
  void CopyTo(CollectBase* target) override;
  void Report(Tavi::PipelineCollect::PipelineCollectOutput& output) const override;
  bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) override;

  /// Highest absolute acceleration in g that was written since Init or Reset, 0 without. Thread-safe.
  [[nodiscard]] double GetMaxG() const { return m_maxG; }

 private:
  using Native = std::array<std::uint8_t, AccDataPak::BlockBytes>;

  Native ConvertBack(const AccDataPak& record);
  void NotePeak(float g);

  std::atomic<double> m_maxG{0.0};
};

}  // namespace Tavi::Accel
