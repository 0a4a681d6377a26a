// The collector of the microphone: its MP3 frames as one MP3 file.
#pragma once

#include <string>

#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace Tavi::Audio {

/// Writes MP3 frames as the encoder made them, one behind the other: a file that any MP3 decoder reads.
class AudioPipelineCollect final : public PipelineCollect::PipelineCollect {
 public:
  AudioPipelineCollect(Kbase::Pipeline::IPipelineElement* element, bool cr);
  ~AudioPipelineCollect() override;

  bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) override;

  /// Writes `seconds` of sound, from the ring position `startPos` on, into a new file at `path`. Ends early, keeping
  /// what is written, at a position without an entry. Runs on its caller's thread, also beside a collect.
  void CollectPreview(const std::string& path, unsigned int startPos, int seconds);
};

}  // namespace Tavi::Audio
