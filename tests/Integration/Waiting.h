// Waiting for an acquisition's rings to fill.
#pragma once

#include "Support/Fixtures.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace Tavi::Testing {

/// Waits until the ring of each source holds `seconds` of it.
inline bool WaitForSeconds(const Pipeline::PipelineManager& manager, int seconds,
                           const std::vector<Pipeline::PipelineType>& sources) {
  return WaitUntil([&] {
    for (const auto type : sources) {
      auto* ring = manager.GetPipelineElement(type);
      const bool enough = ring->IsDataAvailable() && ring->GetCurrentFrameId() + 1 >= seconds * ring->GetFps();
      if (!enough) return false;
    }
    return true;
  });
}

}  // namespace Tavi::Testing
