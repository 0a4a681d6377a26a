// Ring entries of the GPS receiver.
#pragma once

#include "Tavi/GstUtil/GstPipelineCbElement.h"

namespace Tavi::Gps {

/// One fix (GpsData), valid or not. Its name is always "gps".
class GpsPipelineCbElement final : public GstUtil::GstPipelineCbElement {
 public:
  GpsPipelineCbElement(std::uint64_t id, GstBuffer* ownedBuffer) : GstPipelineCbElement(id, ownedBuffer, "gps") {}
};

}  // namespace Tavi::Gps
