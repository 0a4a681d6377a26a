// Key frames stand at the multiples of a camera's rate in its ring: finding the one next to a position.
#pragma once

#include "Kbase/Pipeline/IPipelineElement.h"

namespace Tavi::PipelineCollect {

/// The nearest multiple of `rate` to `pos` (ties go down), wrapped into the ring, when the entry there belongs to the
/// same run of entries as the one at `pos` and a decoder can start at it. Where the grid has moved (the stream
/// restarted), or the multiple lies beyond either end of the ring: the nearest key frame before `pos`, else the nearest
/// one after it, else `pos` itself.
unsigned int AlignToKeyFrame(const Kbase::Pipeline::IPipelineElement& ring, unsigned int pos, unsigned int rate);

}  // namespace Tavi::PipelineCollect
