// The keys of the pipeline manager's elements.
#pragma once

#include <cstdint>

namespace Tavi::Pipeline {

/// Numeric order is the order in which elements are started, stopped and destroyed.
enum class PipelineType : std::int32_t {
  Camera0 = 0,
  Camera1 = 1,
  Audio = 2,
  Gps = 3,
  Acc = 4,
  Other = 5,
  Preview0 = 6,
  Preview1 = 7,
};

}  // namespace Tavi::Pipeline
