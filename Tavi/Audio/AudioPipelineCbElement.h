// Ring entries of the microphone.
#pragma once

#include "Tavi/GstUtil/GstPipelineCbElement.h"

namespace Tavi::Audio {

/// One encoded MP3 frame. Its name is always "audio".
class AudioPipelineCbElement final : public GstUtil::GstPipelineCbElement {
 public:
  AudioPipelineCbElement(std::uint64_t id, GstBuffer* ownedBuffer) : GstPipelineCbElement(id, ownedBuffer, "audio") {}
};

}  // namespace Tavi::Audio
