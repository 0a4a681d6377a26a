// The collector of the microphone.
#include "Tavi/Audio/AudioPipelineCollect.h"

#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/Audio/AudioPipelineCbElement.h"
#include "Tavi/GstUtil/BufferMap.h"
#include "Tavi/PipelineCollect/CollectFile.h"

namespace Tavi::Audio {

using Kbase::Pipeline::IPipelineCbElement;
using Tavi::PipelineCollect::CollectFile;
using Tavi::PipelineCollect::PipelineCollectType;

AudioPipelineCollect::AudioPipelineCollect(Kbase::Pipeline::IPipelineElement* element, bool cr)
    : PipelineCollect(element, PipelineCollectType::Audio, cr ? "COLLECT-SOUND-CR" : "COLLECT-SOUND") {}

AudioPipelineCollect::~AudioPipelineCollect() {
  Stop();
}

bool AudioPipelineCollect::Write(FILE* file, IPipelineCbElement* entry) {
  const GstUtil::BufferMap map(dynamic_cast<const AudioPipelineCbElement*>(entry));
  if (file == nullptr || !map.IsMapped()) return false;
  return Ksystem::FileUtils::Kfile::Write(map.GetBytes().data(), map.GetBytes().size(), file);
}

void AudioPipelineCollect::CollectPreview(const std::string& path, unsigned int startPos, int seconds) {
  const auto ring = GetRing();
  if (!ring) return;
  CollectFile file(path);
  const auto count = static_cast<int>(static_cast<float>(seconds) * ring->GetFps());
  for (int i = 0; i < count; ++i) {
    const auto entry = ring->GetElementAt(startPos + static_cast<unsigned int>(i));
    if (!entry || !file.Append([&](FILE* stream) { return Write(stream, entry.get()); })) return;
  }
}

}  // namespace Tavi::Audio
