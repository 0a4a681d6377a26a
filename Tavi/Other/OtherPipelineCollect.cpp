// The collector of the system metrics.
#include "Tavi/Other/OtherPipelineCollect.h"

#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/GstUtil/BufferMap.h"
#include "Tavi/Other/OtherPipelineCbElement.h"

namespace Tavi::Other {

using Tavi::PipelineCollect::PipelineCollectType;

OtherPipelineCollect::OtherPipelineCollect(Kbase::Pipeline::IPipelineElement* element, bool cr)
    : PipelineCollect(element, PipelineCollectType::Other, cr ? "COLLECT-OTHER-CR" : "COLLECT-OTHER") {}

OtherPipelineCollect::~OtherPipelineCollect() {
  Stop();
}

void OtherPipelineCollect::Init(Tavi::PipelineCollect::PipelineCollectConfig& config) {
  PipelineCollect::Init(config);
  m_samples.clear();
}

void OtherPipelineCollect::Reset() {
  PipelineCollect::Reset();
  m_samples.clear();
}

bool OtherPipelineCollect::Write(FILE* /*file*/, Kbase::Pipeline::IPipelineCbElement* entry) {
  const GstUtil::BufferMap map(dynamic_cast<const OtherPipelineCbElement*>(entry));
  const auto bytes = map.GetBytes();
  if (bytes.size() < 2) return false;
  m_samples.push_back({{"cpu_usage", bytes[0]}, {"temperature", bytes[1]}});
  return true;
}

bool OtherPipelineCollect::WriteFooter(FILE* file) {
  return Ksystem::FileUtils::Kfile::WriteString(Kbase::Json::Serialize(m_samples), file);
}

}  // namespace Tavi::Other
