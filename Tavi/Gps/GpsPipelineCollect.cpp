// The collector of the GPS receiver.
#include "Tavi/Gps/GpsPipelineCollect.h"

#include <cstring>
#include <string>

#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/Gps/FixQuality.h"
#include "Tavi/Gps/GpsData.h"
#include "Tavi/Gps/GpsPipelineCbElement.h"
#include "Tavi/GstUtil/BufferMap.h"

namespace Tavi::Gps {

using Ksystem::FileUtils::Kfile;
using Tavi::PipelineCollect::PipelineCollectType;

GpsPipelineCollect::GpsPipelineCollect(Kbase::Pipeline::IPipelineElement* element, bool cr)
    : PipelineCollect(element, PipelineCollectType::Gps, cr ? "COLLECT-GPS-CR" : "COLLECT-GPS") {}

GpsPipelineCollect::~GpsPipelineCollect() {
  Stop();
}

void GpsPipelineCollect::Init(Tavi::PipelineCollect::PipelineCollectConfig& config) {
  m_maxSpeed = NoSpeed;
  PipelineCollect::Init(config);
}

void GpsPipelineCollect::Reset() {
  m_maxSpeed = NoSpeed;
  PipelineCollect::Reset();
}

void GpsPipelineCollect::CopyTo(CollectBase* target) {
  PipelineCollect::CopyTo(target);
  if (auto* twin = dynamic_cast<GpsPipelineCollect*>(target)) twin->m_maxSpeed = m_maxSpeed;
}

void GpsPipelineCollect::Report(Tavi::PipelineCollect::PipelineCollectOutput& output) const {
  PipelineCollect::Report(output);
  output.maxSpeed = GetMaxSpeed();
}

bool GpsPipelineCollect::Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) {
  const GstUtil::BufferMap map(dynamic_cast<const GpsPipelineCbElement*>(entry));
  const auto* fix = map.GetRecord<GpsData>();
  if (fix == nullptr) return false;
  const std::string sentence(fix->gprmc_line, strnlen(fix->gprmc_line, sizeof(fix->gprmc_line)));
  if (!Kfile::WriteInt(static_cast<std::int32_t>(sentence.size()), file) || !Kfile::WriteString(sentence, file)) {
    return false;
  }
  if (fix->isValidPackage != 0 && fix->speed > m_maxSpeed) m_maxSpeed = fix->speed;
  return true;
}

std::string GpsPipelineCollect::Annotate(const Kbase::Pipeline::IPipelineCbElement* entry) const {
  const GstUtil::BufferMap map(dynamic_cast<const GpsPipelineCbElement*>(entry));
  const auto* fix = map.GetRecord<GpsData>();
  return fix != nullptr ? FormatFixQuality(*fix) : std::string();
}

}  // namespace Tavi::Gps
