// Stopping acquisition without waiting for a driver that does not answer.
#pragma once

#include "Kbase/Interfaces/IThread.h"
#include "Kbase/Util/TimeMonitor.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace Tavi::PipelineCollect {

/// Takes acquisition down on a thread "STOP" of its own. Its destructor waits for the end of that, however long a
/// driver takes. Borrows the pipeline manager.
class AcquisitionStop final : public Kbase::Interfaces::IThread {
 public:
  explicit AcquisitionStop(Pipeline::PipelineManager& pipeline) : IThread("STOP"), m_pipeline(pipeline) {}
  ~AcquisitionStop() override { Wait(); }

  /// Returns when acquisition is stopped, or after `bound`: then it is still being stopped, and the result is false.
  /// False at once, and nothing happens, where the system has no thread to give.
  [[nodiscard]] bool StopWithin(Milliseconds bound) {
    if (!Start() && !IsRunning()) return false;
    const Kbase::Util::TimeMonitor monitor;
    while (IsRunning() && monitor.Elapsed() < bound) Kbase::Util::IClock::Steady().Sleep(Milliseconds(1));
    return !IsRunning();
  }

 protected:
  void Run() override {
    m_pipeline.RunSigInt();
    Cancel();
  }

 private:
  Pipeline::PipelineManager& m_pipeline;
};

}  // namespace Tavi::PipelineCollect
