// The collector of the accelerometer: smoothed samples as native bytes, and the highest acceleration.
#include "Tavi/Accel/AccPipelineCollect.h"

#include <cmath>

#include "Kbase/UtilAcc/UtilAcc.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/Accel/AccPipelineCbElement.h"
#include "Tavi/GstUtil/BufferMap.h"

namespace Tavi::Accel {

using Ksystem::FileUtils::Kfile;
using Tavi::PipelineCollect::PipelineCollectType;

namespace {

constexpr std::size_t Axes = 3;

}  // namespace

AccPipelineCollect::AccPipelineCollect(Kbase::Pipeline::IPipelineElement* element, bool cr)
    : PipelineCollect(element, PipelineCollectType::Acc, cr ? "COLLECT-ACC-CR" : "COLLECT-ACC") {}

AccPipelineCollect::~AccPipelineCollect() {
  Stop();
}

void AccPipelineCollect::Init(Tavi::PipelineCollect::PipelineCollectConfig& config) {
  m_maxG = 0.0;
  PipelineCollect::Init(config);
}

void AccPipelineCollect::Reset() {
  m_maxG = 0.0;
  PipelineCollect::Reset();
}

void AccPipelineCollect::CopyTo(CollectBase* target) {
  PipelineCollect::CopyTo(target);
  if (auto* twin = dynamic_cast<AccPipelineCollect*>(target)) twin->m_maxG = m_maxG.load();
}

void AccPipelineCollect::Report(Tavi::PipelineCollect::PipelineCollectOutput& output) const {
  PipelineCollect::Report(output);
  output.maxG = GetMaxG();
}

bool AccPipelineCollect::Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) {
  const GstUtil::BufferMap map(dynamic_cast<const AccPipelineCbElement*>(entry));
  const auto* record = map.GetRecord<AccDataPak>();
  if (file == nullptr || record == nullptr) return false;
  const Native native = ConvertBack(*record);
  return Kfile::WriteInt(static_cast<std::int32_t>(native.size()), file) &&
         Kfile::Write(native.data(), native.size(), file);
}

AccPipelineCollect::Native AccPipelineCollect::ConvertBack(const AccDataPak& record) {
  Native native;
  for (std::size_t i = 0; i < native.size(); ++i) {
    const bool isUpright = i % Axes == 0;
    const float g = record.g[i] + (isUpright ? 1.0F : 0.0F);
    NotePeak(g);
    native[i] = Kbase::UtilAcc::AccFloatToNative(isUpright ? g + 1.0F : g, record.scale);
  }
  return native;
}

void AccPipelineCollect::NotePeak(float g) {
  const double peak = std::fabs(static_cast<double>(g));
  if (peak > m_maxG) m_maxG = peak;
}

}  // namespace Tavi::Accel
