// The ring entry of the accelerometer.
#pragma once

#include "Tavi/GstUtil/GstPipelineCbElement.h"

namespace Tavi::Accel {

/// One block of samples; its buffer is an AccDataPak.
class AccPipelineCbElement final : public GstUtil::GstPipelineCbElement {
 public:
  using GstPipelineCbElement::GstPipelineCbElement;
};

}  // namespace Tavi::Accel
