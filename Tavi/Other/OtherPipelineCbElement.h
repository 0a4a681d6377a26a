// Ring entries of the system metrics.
#pragma once

#include "Tavi/GstUtil/GstPipelineCbElement.h"

namespace Tavi::Other {

/// One sample (OtherDataPak). Its name is always "other".
class OtherPipelineCbElement final : public GstUtil::GstPipelineCbElement {
 public:
  OtherPipelineCbElement(std::uint64_t id, GstBuffer* ownedBuffer) : GstPipelineCbElement(id, ownedBuffer, "other") {}
};

}  // namespace Tavi::Other
